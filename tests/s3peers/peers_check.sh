#!/usr/bin/env bash
# Self-test of the S3 peers started by start.sh OUTDIR: Debian's aws CLI and
# rclone write, read back, list and delete over plain HTTP and over HTTPS
# trusting the throwaway CA, including multipart uploads; a wrong secret, an
# untrusted CA, a certificate for another name, unsigned requests and bodies
# that do not match their digests must all be refused.
# Exits 0 only when every check held.
set -uo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 OUTDIR" >&2
  exit 2
fi
out=$(cd "$1" 2>/dev/null && pwd -P) || { echo "peers_check: no directory $1" >&2; exit 1; }
if [ ! -f "$out/peers.env" ]; then
  echo "peers_check: $out/peers.env is missing; run tests/s3peers/start.sh $1 first" >&2
  exit 1
fi

# Only what start.sh wrote counts: inherited AWS_*, RCLONE_*, CA bundle and
# proxy settings would change what the clients trust or where they go.
while read -r v; do
  case $v in
    AWS_* | RCLONE_* | SSL_CERT_* | REQUESTS_CA_BUNDLE | CURL_CA_BUNDLE | *_proxy | *_PROXY) unset "$v" ;;
  esac
done < <(compgen -e)
while IFS='=' read -r k v; do
  case $k in S3_*) printf -v "$k" '%s' "$v" ;; esac
done <"$out/peers.env"
for k in S3_HTTP_ENDPOINT S3_HTTPS_ENDPOINT S3_WRONGNAME_ENDPOINT S3_HTTPS_PORT S3_CA_FILE \
         S3_ACCESS_KEY S3_SECRET_KEY S3_REGION S3_BUCKET S3_LOG_HTTP S3_LOG_HTTPS; do
  [ -n "${!k:-}" ] || { echo "peers_check: $k missing from $out/peers.env" >&2; exit 1; }
done

# Debian's awscli, whatever else is called aws on PATH.
AWS=/usr/bin/aws
RCLONE=$(command -v rclone || true)
command -v curl >/dev/null || { echo "peers_check: curl missing; run scripts/deps.sh" >&2; exit 1; }
[ -x "$AWS" ] || { echo "peers_check: $AWS missing; run scripts/deps.sh" >&2; exit 1; }
[ -n "$RCLONE" ] || { echo "peers_check: rclone missing; run scripts/deps.sh" >&2; exit 1; }

tmp=$(mktemp -d "$out/check.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

cat >"$tmp/aws.cfg" <<EOF
[default]
region = $S3_REGION
s3 =
  multipart_threshold = 5MB
  multipart_chunksize = 5MB
  addressing_style = path
EOF
: >"$tmp/rclone.conf"
export AWS_CONFIG_FILE="$tmp/aws.cfg" AWS_SHARED_CREDENTIALS_FILE=/dev/null
export AWS_ACCESS_KEY_ID="$S3_ACCESS_KEY" AWS_SECRET_ACCESS_KEY="$S3_SECRET_KEY"
export AWS_EC2_METADATA_DISABLED=true AWS_MAX_ATTEMPTS=1 AWS_RETRY_MODE=standard
export RCLONE_CONFIG_S_TYPE=s3 RCLONE_CONFIG_S_PROVIDER=Other RCLONE_CONFIG_S_FORCE_PATH_STYLE=true
export RCLONE_CONFIG_S_ACCESS_KEY_ID="$S3_ACCESS_KEY" RCLONE_CONFIG_S_SECRET_ACCESS_KEY="$S3_SECRET_KEY"
export RCLONE_CONFIG_S_REGION="$S3_REGION"

aws_at() { # ENDPOINT ARGS...; set AWS_CA_BUNDLE on the call to trust a CA
  local ep=$1
  shift
  "$AWS" --endpoint-url "$ep" --no-cli-pager --cli-connect-timeout 5 --cli-read-timeout 30 "$@"
}
rclone_at() { # ENDPOINT ARGS...
  local ep=$1
  shift
  RCLONE_CONFIG_S_ENDPOINT=$ep "$RCLONE" --config "$tmp/rclone.conf" --retries 1 \
    --low-level-retries 1 --contimeout 5s --timeout 30s \
    --s3-upload-cutoff 5M --s3-chunk-size 5M "$@"
}

# Each section writes its own report (ok/FAIL lines) and scratch files under
# $w, so that the sections can run side by side.
ok() { echo "ok   $1"; }
bad() {
  echo "FAIL $1"
  if [ -s "$w.err" ]; then tail -n 4 "$w.err" | sed 's/^/     | /'; fi
}
# Passes when the command succeeds; its output is left in $w.out.
check() { # WHAT CMD...
  local what=$1
  shift
  if "$@" >"$w.out" 2>"$w.err"; then ok "$what"; else bad "$what (exit $?)"; fi
}
# Passes when the command fails, and for the expected reason.
refused() { # WHAT ERE CMD...
  local what=$1 why=$2
  shift 2
  if "$@" >"$w.out" 2>"$w.err"; then
    bad "$what: it was accepted"
  elif grep -qiE "$why" "$w.err"; then
    ok "$what"
  else
    bad "$what: failed, but not with /$why/"
  fi
}
same() { # WHAT EXPECTED-FILE ACTUAL-FILE
  : >"$w.err"
  if cmp -s "$2" "$3"; then ok "$1"; else bad "$1: content differs"; fi
}
# The last command's output, sorted, is TEXT (tabs read as spaces).
output_is() { # WHAT TEXT
  local want got
  want=$(printf '%s\n' "$2" | sort)
  got=$(tr '\t' ' ' <"$w.out" | sort)
  printf 'want:\n%s\ngot:\n%s\n' "$want" "$got" >"$w.err"
  if [ "$want" = "$got" ]; then ok "$1"; else bad "$1"; fi
}
output_in_order() { # WHAT TEXT
  printf 'want:\n%s\ngot:\n%s\n' "$2" "$(tr '\t' ' ' <"$w.out")" >"$w.err"
  if [ "$2" = "$(tr '\t' ' ' <"$w.out")" ]; then ok "$1"; else bad "$1"; fi
}
# WORD is one of the blank-separated words of the last command's output.
has_word() { tr -s '\t ' '\n' <"$w.out" | grep -qxF "$1"; }
output_has() { # WHAT WORD
  printf 'no word "%s" in:\n%s\n' "$2" "$(cat "$w.out")" >"$w.err"
  if has_word "$2"; then ok "$1"; else bad "$1"; fi
}
output_lacks() { # WHAT WORD
  printf 'word "%s" in:\n%s\n' "$2" "$(cat "$w.out")" >"$w.err"
  if has_word "$2"; then bad "$1"; else ok "$1"; fi
}
# curl gets HTTP STATUS, and with an error status the S3 error CODE.
answers() { # WHAT STATUS CODE CURL-ARGS...
  local what=$1 status=$2 code=$3 got
  shift 3
  got=$(curl -sS --max-time 30 -o "$w.out" -w '%{http_code}' "$@" 2>"$w.err")
  { echo "HTTP $got"; head -c 600 "$w.out" | tr -c '[:print:]\n' '.'; echo; } >>"$w.err"
  if [ "$got" = "$status" ] && { [ -z "$code" ] || grep -q "<Code>$code</Code>" "$w.out"; }; then
    ok "$what"
  else
    bad "$what (wanted HTTP $status $code)"
  fi
}
# A multipart upload of KEY left PUTs for exactly N parts in the server's log.
parts_logged() { # LOG BUCKET KEY N
  local n
  n=$(grep -cE "^[0-9.]+ PUT /$2/$3\?([^ ]*&)?partNumber=[0-9]+(&[^ ]*)? 200$" "$1")
  [ "$n" -eq "$4" ] || { echo "$n part uploads logged for $2/$3, expected $4" >&2; return 1; }
}

head -c 100000 /dev/urandom >"$tmp/small"
big_size=$((12 * 1024 * 1024))
head -c $big_size /dev/urandom >"$tmp/big"
big_parts=3 # 12 MiB in 5 MiB parts
H=$S3_HTTP_ENDPOINT
S=$S3_HTTPS_ENDPOINT

# Plain HTTP, aws writing and rclone reading back.
section_aws_writes() {
  local b=peerchk-$$-a
  echo "== plain HTTP ($H), aws writes, bucket $b"
  check "aws: create bucket" aws_at "$H" s3api create-bucket --bucket "$b"
  check "aws: put small object" aws_at "$H" s3 cp --only-show-errors "$tmp/small" "s3://$b/dir/small"
  check "aws: put 12 MiB object" aws_at "$H" s3 cp --only-show-errors "$tmp/big" "s3://$b/big"
  check "aws: upload was multipart, $big_parts parts" parts_logged "$S3_LOG_HTTP" "$b" big $big_parts
  check "rclone: get small object" rclone_at "$H" copyto "s:$b/dir/small" "$w.small"
  same "rclone: small object byte-exact" "$tmp/small" "$w.small"
  check "rclone: get 12 MiB object" rclone_at "$H" copyto "s:$b/big" "$w.big"
  same "rclone: 12 MiB object byte-exact" "$tmp/big" "$w.big"
  check "rclone: ranged read" rclone_at "$H" cat --offset 5242870 --count 30 "s:$b/big"
  tail -c +5242871 "$tmp/big" | head -c 30 >"$w.range"
  same "rclone: ranged read returns bytes 5242870-5242899" "$w.range" "$w.out"
  check "rclone: put another small object" rclone_at "$H" copyto "$tmp/small" "s:$b/dir-x"
  # One key per page, so that continuation tokens are used too; "dir-x"
  # sorts between "big" and "dir/small", and a listing in the wrong order
  # loses it.
  check "aws: list, one key per page" aws_at "$H" s3api list-objects-v2 --bucket "$b" --page-size 1 \
    --query 'Contents[].[Key,Size]' --output text
  output_in_order "aws: listing is the three objects, in key order" "big $big_size
dir-x 100000
dir/small 100000"
  check "aws: delete objects, then the bucket" aws_at "$H" s3 rb --force "s3://$b"
  check "rclone: list buckets" rclone_at "$H" lsd s:
  output_has "rclone: pre-created bucket $S3_BUCKET is there" "$S3_BUCKET"
  output_lacks "rclone: deleted bucket is gone" "$b"
}

# Plain HTTP, rclone writing and aws reading back.
section_rclone_writes() {
  local b=peerchk-$$-r
  echo "== plain HTTP ($H), rclone writes, bucket $b"
  check "rclone: create bucket" rclone_at "$H" mkdir "s:$b"
  check "rclone: put small object" rclone_at "$H" copyto "$tmp/small" "s:$b/dir/small"
  check "rclone: put 12 MiB object" rclone_at "$H" copyto "$tmp/big" "s:$b/big"
  check "rclone: upload was multipart, $big_parts parts" parts_logged "$S3_LOG_HTTP" "$b" big $big_parts
  check "aws: get 12 MiB object" aws_at "$H" s3 cp --only-show-errors "s3://$b/big" "$w.big"
  same "aws: 12 MiB object byte-exact" "$tmp/big" "$w.big"
  check "rclone: list" rclone_at "$H" lsf -R --files-only --format ps --separator ' ' "s:$b"
  output_is "rclone: listing is both objects" "big $big_size
dir/small 100000"
  check "rclone: delete object" rclone_at "$H" deletefile "s:$b/big"
  check "aws: list after delete" aws_at "$H" s3api list-objects-v2 --bucket "$b" \
    --query 'Contents[].[Key,Size]' --output text
  output_is "aws: one object left" "dir/small 100000"
  check "rclone: delete the rest, then the bucket" rclone_at "$H" purge "s:$b"
  check "rclone: list buckets" rclone_at "$H" lsd s:
  output_lacks "rclone: deleted bucket is gone" "$b"
}

section_https() {
  local b=peerchk-$$-s
  local rs=(rclone_at "$S" --ca-cert "$S3_CA_FILE")
  echo "== HTTPS ($S), trusting $S3_CA_FILE, bucket $b"
  check "rclone: create bucket" "${rs[@]}" mkdir "s:$b"
  check "rclone: put small object" "${rs[@]}" copyto "$tmp/small" "s:$b/small-rc"
  # rclone will not start with AWS_CA_BUNDLE set: give it to aws alone.
  AWS_CA_BUNDLE="$S3_CA_FILE" check "aws: put 12 MiB object" \
    aws_at "$S" s3 cp --only-show-errors "$tmp/big" "s3://$b/big-aws"
  check "aws: upload was multipart, $big_parts parts" parts_logged "$S3_LOG_HTTPS" "$b" big-aws $big_parts
  check "rclone: get aws's 12 MiB object" "${rs[@]}" copyto "s:$b/big-aws" "$w.big"
  same "rclone: 12 MiB object byte-exact" "$tmp/big" "$w.big"
  # The certificate names the address as well as localhost.
  AWS_CA_BUNDLE="$S3_CA_FILE" check "aws: get rclone's object via https://127.0.0.1" \
    aws_at "https://127.0.0.1:$S3_HTTPS_PORT" s3 cp --only-show-errors "s3://$b/small-rc" "$w.small"
  same "aws: small object byte-exact" "$tmp/small" "$w.small"
  check "rclone: list" "${rs[@]}" lsf --format ps --separator ' ' "s:$b"
  output_is "rclone: listing is the two objects" "big-aws $big_size
small-rc 100000"
  check "rclone: delete objects and bucket" "${rs[@]}" purge "s:$b"
  check "rclone: list buckets" "${rs[@]}" lsd s:
  output_has "rclone: pre-created bucket $S3_BUCKET is there" "$S3_BUCKET"
  output_lacks "rclone: deleted bucket is gone" "$b"
}

section_refused() {
  echo "== what must be refused"
  refused "aws: HTTPS without trusting the CA" "certificate verify failed" \
    aws_at "$S" s3api list-buckets
  refused "rclone: HTTPS without trusting the CA" "x509: certificate signed by unknown authority" \
    rclone_at "$S" lsd s:
  AWS_CA_BUNDLE="$S3_CA_FILE" refused "aws: certificate for another name" "doesn't match" \
    aws_at "$S3_WRONGNAME_ENDPOINT" s3api list-buckets
  refused "rclone: certificate for another name" "x509: certificate is valid for wrong.invalid" \
    rclone_at "$S3_WRONGNAME_ENDPOINT" --ca-cert "$S3_CA_FILE" lsd s:
  # ...and for the name alone: unverified, that server answers.
  check "aws: the other-name server answers when not verified" \
    aws_at "$S3_WRONGNAME_ENDPOINT" --no-verify-ssl s3api head-bucket --bucket "$S3_BUCKET"
  # Stricter than s3rver alone: server.js refuses these as S3 does.
  local sig=(--aws-sigv4 "aws:amz:$S3_REGION:s3" --user "$S3_ACCESS_KEY:$S3_SECRET_KEY")
  local unsigned=(-H "x-amz-content-sha256: UNSIGNED-PAYLOAD")
  local u="$H/$S3_BUCKET/peerchk-$$"
  local sha md5 other_sha other_md5
  sha=$(sha256sum <"$tmp/small" | cut -d' ' -f1)
  md5=$(openssl md5 -binary <"$tmp/small" | base64)
  other_sha=$(printf x | sha256sum | cut -d' ' -f1)
  other_md5=$(printf x | openssl md5 -binary | base64)
  answers "curl: signed PUT with the right digests is stored" 200 "" \
    "${sig[@]}" -H "x-amz-content-sha256: $sha" -H "Content-MD5: $md5" -T "$tmp/small" "$u-ok"
  answers "curl: signed GET reads it" 200 "" "${sig[@]}" "${unsigned[@]}" "$u-ok"
  same "curl: byte-exact" "$tmp/small" "$w.out"
  answers "curl: unsigned request" 403 AccessDenied "$u-ok"
  answers "curl: body differing from x-amz-content-sha256" 400 XAmzContentSHA256Mismatch \
    "${sig[@]}" -H "x-amz-content-sha256: $other_sha" -T "$tmp/small" "$u-sha"
  answers "curl: body differing from Content-MD5" 400 BadDigest \
    "${sig[@]}" "${unsigned[@]}" -H "Content-MD5: $other_md5" -T "$tmp/small" "$u-md5"
  answers "curl: refused bodies were not stored" 404 NoSuchKey "${sig[@]}" "${unsigned[@]}" "$u-sha"
  answers "curl: start a multipart upload" 200 "" "${sig[@]}" "${unsigned[@]}" -X POST "$u-mp?uploads="
  local id
  id=$(grep -o '<UploadId>[^<]*' "$w.out" | sed 's/<UploadId>//')
  answers "curl: completing with a part never uploaded" 400 InvalidPart "${sig[@]}" "${unsigned[@]}" \
    --data-binary '<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>"0"</ETag></Part></CompleteMultipartUpload>' \
    "$u-mp?uploadId=$id"
  answers "curl: the server still answers after that" 204 "" "${sig[@]}" "${unsigned[@]}" -X DELETE "$u-ok"
  AWS_SECRET_ACCESS_KEY=not-the-secret refused "aws: wrong secret" "SignatureDoesNotMatch" \
    aws_at "$H" s3api list-objects-v2 --bucket "$S3_BUCKET"
  RCLONE_CONFIG_S_SECRET_ACCESS_KEY=not-the-secret refused "rclone: wrong secret" "SignatureDoesNotMatch" \
    rclone_at "$H" lsf "s:$S3_BUCKET"
}

start=$SECONDS
sections=(aws_writes rclone_writes https refused)
for sec in "${sections[@]}"; do
  (w="$tmp/$sec" && "section_$sec" && echo "done $sec") >"$tmp/$sec.report" 2>&1 &
done
wait
for sec in "${sections[@]}"; do
  # A section that died half-way must not pass on the checks it did run.
  grep -qx "done $sec" "$tmp/$sec.report" || echo "FAIL section $sec did not run to its end" >>"$tmp/$sec.report"
  grep -avx "done $sec" "$tmp/$sec.report"
done
passed=$(cat "$tmp"/*.report | grep -ac '^ok ')
failed=$(cat "$tmp"/*.report | grep -ac '^FAIL ')
echo "peers_check: $((SECONDS - start)) s"
echo "peers_check: $passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
