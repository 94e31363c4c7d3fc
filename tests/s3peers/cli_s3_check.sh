#!/usr/bin/env bash
# The plinth tool against the loopback S3 peers that start.sh OUTDIR
# started: plinth s3 (mb, ls, stat, put, get, cp, rm) over plain HTTP and
# over HTTPS trusting the throwaway CA, multipart uploads, standard input
# and output, refusals (wrong secret, untrusted or misnamed certificates,
# missing objects, usage errors), folders both ways (put -r, get -r), and
# pack --to / unpack --from / verify of a generated tree through a bucket,
# with an interrupted pack that must leave no object.
# Usage: cli_s3_check.sh PLINTH OUTDIR. Exits 0 only when every check held.
set -uo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 PLINTH OUTDIR" >&2
  exit 2
fi
plinth=$(cd "$(dirname "$1")" && pwd -P)/$(basename "$1")
out=$(cd "$2" 2>/dev/null && pwd -P) || { echo "cli_s3_check: no directory $2" >&2; exit 1; }
[ -x "$plinth" ] || { echo "cli_s3_check: $1 is not executable" >&2; exit 1; }
if [ ! -f "$out/peers.env" ]; then
  echo "cli_s3_check: $out/peers.env is missing; run tests/s3peers/start.sh $2" >&2
  exit 1
fi

# Only what start.sh wrote counts: inherited AWS_*, CA bundle, proxy and
# plinth settings would change what the tool trusts or where it goes.
while read -r v; do
  case $v in
    AWS_* | SSL_CERT_* | REQUESTS_CA_BUNDLE | CURL_CA_BUNDLE | *_proxy | *_PROXY | PLINTH_*) unset "$v" ;;
  esac
done < <(compgen -e)
while IFS='=' read -r k v; do
  case $k in S3_*) printf -v "$k" '%s' "$v" ;; esac
done <"$out/peers.env"

tmp=$(mktemp -d "$out/cli.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
export HOME="$tmp/home" # no ~/.aws of the machine's
mkdir -p "$HOME"
export AWS_ACCESS_KEY_ID="$S3_ACCESS_KEY" AWS_SECRET_ACCESS_KEY="$S3_SECRET_KEY" AWS_REGION="$S3_REGION"
H=$S3_HTTP_ENDPOINT
S=$S3_HTTPS_ENDPOINT
secret=Wr0ng-Secret-zq81x

ok() { echo "ok   $1"; }
bad() {
  echo "FAIL $1"
  if [ -s "$w.err" ]; then tail -n 4 "$w.err" | sed 's/^/     | /'; fi
}
# `plinth ARGS` with the endpoint ENDPOINT; output in $w.out and $w.err.
at() { # ENDPOINT ARGS...
  local ep=$1
  shift
  AWS_ENDPOINT_URL=$ep "$plinth" "$@" >"$w.out" 2>"$w.err"
}
check() { # WHAT ENDPOINT ARGS...
  local what=$1
  shift
  if at "$@"; then ok "$what"; else bad "$what (exit $?)"; fi
}
# Fails with exit code CODE and a message matching ERE.
refused() { # WHAT CODE ERE ENDPOINT ARGS...
  local what=$1 code=$2 why=$3 rc
  shift 3
  at "$@"
  rc=$?
  if [ $rc -ne "$code" ]; then
    bad "$what: exit $rc, expected $code"
  elif ! grep -qE -- "$why" "$w.err"; then
    bad "$what: no /$why/ in the message"
  else
    ok "$what"
  fi
}
secret_hidden() { # WHAT (in the last command's output and errors)
  if grep -qF "$secret" "$w.out" "$w.err"; then bad "$1: the secret shows"; else ok "$1: the secret shows nowhere"; fi
}
same() { # WHAT EXPECTED ACTUAL
  : >"$w.err"
  if cmp -s "$2" "$3"; then ok "$1"; else bad "$1: content differs"; fi
}
holds() { # WHAT ERE (in the last output)
  cp "$w.out" "$w.err"
  if grep -qE -- "$2" "$w.out"; then ok "$1"; else bad "$1: no /$2/ in the output"; fi
}
lacks() { # WHAT ERE
  cp "$w.out" "$w.err"
  if grep -qE -- "$2" "$w.out"; then bad "$1: /$2/ in the output"; else ok "$1"; fi
}
# Each line of the server's log that stored a part of BUCKET/KEY.
parts_logged() { # LOG BUCKET KEY
  grep -cE "^[0-9.]+ PUT /$2/$3\?([^ ]*&)?partNumber=[0-9]+(&[^ ]*)? 200$" "$1"
}

head -c 1000 /dev/urandom >"$tmp/small"
: >"$tmp/empty"
head -c $((20 * 1024 * 1024 + 123)) /dev/urandom >"$tmp/big"
head -c 300000 /dev/urandom >"$tmp/piped"
# The tree to pack: nested folders, an empty file and folder, a file of
# several chunks, and enough bytes that the container spans upload parts.
tree=$tmp/tree
mkdir -p "$tree/a/b" "$tree/empty-dir" "$tree/c"
for i in 1 2 3 4 5; do head -c $((i * 1000 + 7)) /dev/urandom >"$tree/a/f$i"; done
head -c $((3 * 1024 * 1024 + 5)) /dev/urandom >"$tree/a/b/three-chunks"
head -c $((9 * 1024 * 1024)) /dev/urandom >"$tree/c/nine"
: >"$tree/c/empty"
touch -d '2001-02-03 04:05:06' "$tree/a/f1"

section_http() {
  local b=cli-$$-h b2=cli-$$-h2
  echo "== plain HTTP ($H), bucket $b"
  check "mb" "$H" s3 mb "s3://$b"
  refused "mb of an existing bucket" 1 "s3://$b: it exists already" "$H" s3 mb "s3://$b"
  check "put a small file" "$H" s3 put "$tmp/small" "s3://$b/small"
  check "get it back" "$H" s3 get "s3://$b/small" "$w.small"
  same "small round trip is byte-exact" "$tmp/small" "$w.small"
  check "stat" "$H" s3 stat "s3://$b/small"
  holds "stat: size" "^size: 1000$"
  holds "stat: entity tag" '^etag: "?[0-9a-f]{32}"?$'
  holds "stat: last change" "^last-modified: .*GMT$"
  holds "stat: the library's own creation date" "^created: [0-9]{4}-"
  check "put an empty file" "$H" s3 put "$tmp/empty" "s3://$b/dir/empty"
  echo stale >"$w.empty"
  check "get the empty object over an existing file" "$H" s3 get "s3://$b/dir/empty" "$w.empty"
  same "empty round trip" "$tmp/empty" "$w.empty"
  check "put from standard input" "$H" s3 put - "s3://$b/dir/piped" <"$tmp/piped"
  check "get to standard output" "$H" s3 get "s3://$b/dir/piped" -
  same "standard input and output round trip" "$tmp/piped" "$w.out"
  mkdir -p "$w.into"
  check "get into a folder takes the key's name" "$H" s3 get "s3://$b/dir/piped" "$w.into"
  same "got into the folder" "$tmp/piped" "$w.into/piped"
  PLINTH_CLOUD_MAX_TRANSFER_MB=5 check "put 20 MiB in 5 MiB parts, showing progress" \
    "$H" s3 put --progress "$tmp/big" "s3://$b/big"
  cp "$w.err" "$w.out"
  holds "progress names bytes of the total, rate and time" "of 20\.0 MiB \([0-9]+%\), [0-9.]+ [KMG]?i?B/s"
  n=$(parts_logged "$S3_LOG_HTTP" "$b" big)
  : >"$w.err"
  if [ "$n" -eq 5 ]; then ok "the 20 MiB put went up as 5 parts"; else bad "20 MiB put: $n parts logged"; fi
  check "get 20 MiB to standard output, quietly" "$H" s3 get "s3://$b/big" -
  same "20 MiB round trip" "$tmp/big" "$w.out"
  if [ -s "$w.err" ]; then bad "get to a pipe printed on standard error"; else ok "no progress when not a terminal"; fi
  check "ls, one level" "$H" s3 ls "s3://$b"
  holds "ls shows the folder" "^ +DIR  dir/$"
  holds "ls shows the small object with its size and date" "^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z +1000  small$"
  lacks "ls does not go into the folder" "dir/piped"
  check "ls of a prefix" "$H" s3 ls "s3://$b/dir/"
  holds "ls of a prefix shows its objects" " 300000  dir/piped$"
  check "ls -r" "$H" s3 ls -r "s3://$b"
  holds "ls -r shows the deep object" " 300000  dir/piped$"
  lacks "ls -r shows no folders" "DIR"
  check "cp within the bucket" "$H" s3 cp "s3://$b/small" "s3://$b/copies/"
  check "get the copy" "$H" s3 get "s3://$b/copies/small" "$w.copy"
  same "copy is byte-exact" "$tmp/small" "$w.copy"
  check "mb a second bucket" "$H" s3 mb "s3://$b2"
  check "cp to another bucket streams" "$H" s3 cp "s3://$b/dir/piped" "s3://$b2/piped"
  check "get the streamed copy" "$H" s3 get "s3://$b2/piped" "$w.copy2"
  same "streamed copy is byte-exact" "$tmp/piped" "$w.copy2"
  check "rm" "$H" s3 rm "s3://$b/copies/small"
  refused "stat of the removed object" 1 "s3://$b/copies/small: no such object .*\[-1101" \
    "$H" s3 stat "s3://$b/copies/small"
  refused "rm of a missing object" 1 "s3://$b/copies/small: no such object" "$H" s3 rm "s3://$b/copies/small"
  echo keep >"$w.kept"
  refused "get of a missing object" 1 "cannot read s3://$b/nothing-here: no such object" \
    "$H" s3 get "s3://$b/nothing-here" "$w.kept"
  if [ "$(cat "$w.kept")" = keep ] && [ -z "$(find "$(dirname "$w")" -name '.*plinth-*')" ]; then
    ok "a failed get leaves the target as it was, and no temporary file"
  else
    : >"$w.err"
    bad "a failed get touched the target or left a temporary file"
  fi
  refused "ls of a missing bucket" 1 "no such bucket" "$H" s3 ls "s3://$b-none"
  # Keys from the shared credentials file instead of the environment.
  printf '[other]\naws_access_key_id = x\n\n[ci]\naws_access_key_id = %s\naws_secret_access_key = %s\n' \
    "$S3_ACCESS_KEY" "$S3_SECRET_KEY" >"$w.credentials"
  (
    unset AWS_ACCESS_KEY_ID AWS_SECRET_ACCESS_KEY
    export AWS_SHARED_CREDENTIALS_FILE="$w.credentials"
    AWS_PROFILE=ci check "keys from the credentials file's profile" "$H" s3 ls "s3://$b/dir/"
    refused "a profile without keys" 1 "profile \[other\] .* lacks aws_secret_access_key" \
      "$H" s3 ls --profile other "s3://$b"
  )
}

section_refused() {
  echo "== refusals"
  # A HEAD's refusal has no body to name the reason; a listing's has. The
  # log goes to standard error too: the secret must not show there either.
  AWS_SECRET_ACCESS_KEY=$secret PLINTH_LOG=- refused "wrong secret, a read" 1 \
    "cannot read s3://$S3_BUCKET/x: access denied.* \[-1017" "$H" s3 get "s3://$S3_BUCKET/x" "$w.x"
  secret_hidden "wrong secret, a read"
  AWS_SECRET_ACCESS_KEY=$secret PLINTH_LOG=- refused "wrong secret, a listing, named as such" 1 \
    "cannot list s3://$S3_BUCKET/: access denied: the secret key does not match" "$H" s3 ls "s3://$S3_BUCKET"
  secret_hidden "wrong secret, a listing"
  refused "HTTPS without trusting the CA" 1 "cannot list s3://$S3_BUCKET/: the server's certificate is not trusted" \
    "$S" s3 ls "s3://$S3_BUCKET"
  AWS_CA_BUNDLE=$S3_CA_FILE refused "a certificate for another name" 1 \
    "cannot list s3://$S3_BUCKET/: the server's certificate is not trusted \(.*name" \
    "$S3_WRONGNAME_ENDPOINT" s3 ls "s3://$S3_BUCKET"
  AWS_CA_BUNDLE=$tmp/none refused "an unreadable AWS_CA_BUNDLE" 1 "AWS_CA_BUNDLE" "$S" s3 ls "s3://$S3_BUCKET"
  (
    unset AWS_ACCESS_KEY_ID AWS_SECRET_ACCESS_KEY
    refused "no keys anywhere" 1 "no keys: .*credentials" "$H" s3 ls "s3://$S3_BUCKET"
  )
  refused "usage: no command" 2 "no command" "$H" s3
  refused "usage: unknown command" 2 "unknown command 'frob'" "$H" s3 frob
  refused "usage: too few arguments" 2 "expected 2 arguments, got 1" "$H" s3 get "s3://$S3_BUCKET/x"
  refused "usage: not a location" 2 "not an s3://BUCKET/KEY location" "$H" s3 ls "/tmp"
  refused "usage: no object named" 2 "names no object" "$H" s3 rm "s3://$S3_BUCKET/"
  refused "usage: unknown option" 2 "unknown option --bogus" "$H" s3 stat --bogus "s3://$S3_BUCKET/x"
  refused "usage: option without its value" 2 "--endpoint-url needs a value" "$H" s3 ls "s3://b" --endpoint-url
  refused "usage: a malformed endpoint" 2 "is not http://HOST" "ftp://host" s3 ls "s3://$S3_BUCKET"
  refused "usage: a pack into no object" 2 "names no object" "$H" pack --to "s3://$S3_BUCKET/" "$tree"
  PLINTH_CLOUD_UPLOAD_LIMIT=fast refused "usage: a bad rate" 2 "PLINTH_CLOUD_UPLOAD_LIMIT=fast" \
    "$H" s3 ls "s3://$S3_BUCKET"
  refused "a put of a missing file" 1 "cannot read $tmp/none: No such file" "$H" s3 put "$tmp/none" "s3://$S3_BUCKET/x"
  for args in "s3" "s3 mb" "s3 ls" "s3 stat" "s3 put" "s3 get" "s3 cp" "s3 rm" "pack" "unpack" "verify"; do
    # shellcheck disable=SC2086 # the words are the command
    if "$plinth" $args --help >"$w.out" 2>"$w.err" && grep -q "^usage: plinth ${args%% *}" "$w.out"; then
      ok "$args --help"
    else
      bad "$args --help"
    fi
  done
}

section_https() {
  local b=cli-$$-s
  export AWS_CA_BUNDLE=$S3_CA_FILE
  echo "== HTTPS ($S), trusting $S3_CA_FILE, bucket $b"
  check "mb over HTTPS" "$S" s3 mb "s3://$b"
  PLINTH_CLOUD_MAX_TRANSFER_MB=5 check "put 20 MiB over HTTPS" "$S" s3 put "$tmp/big" "s3://$b/big"
  check "get it back" "$S" s3 get "s3://$b/big" "$w.big"
  same "HTTPS round trip" "$tmp/big" "$w.big"
  # --endpoint-url wins over the environment's endpoint.
  check "--endpoint-url overrides AWS_ENDPOINT_URL" "$H" s3 stat --endpoint-url "$S" "s3://$b/big"
  holds "the stat came from the HTTPS server" "^size: 20971643$"
}

section_pack() {
  local b=cli-$$-p key=backups/tree.pack
  echo "== pack through a bucket ($H), bucket $b"
  check "mb" "$H" s3 mb "s3://$b"
  PLINTH_CLOUD_MAX_TRANSFER_MB=5 check "pack --to" "$H" pack --to "s3://$b/$key" "$tree"
  holds "pack names the object" "into s3://$b/$key: "
  n=$(parts_logged "$S3_LOG_HTTP" "$b" "$key")
  if [ "$n" -ge 3 ]; then ok "the container went up in $n parts"; else : >"$w.err"; bad "pack: $n parts logged"; fi
  check "verify s3://" "$H" verify "s3://$b/$key"
  holds "verify counts the files" "ok: 8 files"
  PLINTH_CLOUD_DOWNLOAD_TIER=1 PLINTH_CLOUD_DOWNLOAD_THREADS=2 check "unpack --from" \
    "$H" unpack --from "s3://$b/$key" "$w.restored"
  if diff -r "$tree" "$w.restored" >"$w.err" 2>&1; then ok "diff -r of the restored tree"; else bad "diff -r"; fi
  if [ "$(stat -c %Y "$w.restored/a/f1")" = "$(stat -c %Y "$tree/a/f1")" ]; then
    ok "a file's time came back"
  else
    : >"$w.err"
    bad "a file's time did not come back"
  fi
  refused "pack --to an existing object" 1 "s3://$b/$key exists already" "$H" pack --to "s3://$b/$key" "$tree"
  refused "unpack of a missing object" 1 "cannot open s3://$b/none: no such object" \
    "$H" unpack --from "s3://$b/none" "$w.none"
  check "put a file that is no container" "$H" s3 put "$tmp/small" "s3://$b/junk"
  refused "verify of no container" 1 "cannot open s3://$b/junk: -64[34]" "$H" verify "s3://$b/junk"
  # Interrupted half-way (the upload slowed to 2 MiB/s): no object stays.
  AWS_ENDPOINT_URL=$H PLINTH_CLOUD_MAX_TRANSFER_MB=5 PLINTH_CLOUD_UPLOAD_LIMIT=2M \
    "$plinth" pack --to "s3://$b/cut.pack" "$tree" >"$w.out" 2>"$w.err" &
  local pid=$! rc
  sleep 2
  kill -INT $pid
  wait $pid
  rc=$?
  if [ $rc -eq 130 ] && grep -q "upload was aborted and no object stored" "$w.err"; then
    ok "an interrupted pack --to says so and exits 130"
  else
    bad "interrupted pack --to: exit $rc"
  fi
  refused "the interrupted pack left no object" 1 "no such object" "$H" s3 stat "s3://$b/cut.pack"
  # An interrupted put from a pipe that is still open, past its first part.
  mkfifo "$w.fifo"
  AWS_ENDPOINT_URL=$H PLINTH_CLOUD_MAX_TRANSFER_MB=5 \
    "$plinth" s3 put - "s3://$b/cut.bin" <"$w.fifo" >"$w.out" 2>"$w.err" &
  pid=$!
  exec 7>"$w.fifo"
  head -c $((6 * 1024 * 1024)) /dev/urandom >&7
  sleep 1
  kill -INT $pid
  wait $pid
  rc=$?
  exec 7>&-
  if [ $rc -eq 130 ] && grep -q "cannot store s3://$b/cut.bin: interrupted" "$w.err"; then
    ok "an interrupted put says so and exits 130"
  else
    bad "interrupted put: exit $rc"
  fi
  refused "the interrupted put left no object" 1 "no such object" "$H" s3 stat "s3://$b/cut.bin"
}

section_tree() {
  local b=cli-$$-t
  echo "== folders through a bucket ($H), bucket $b"
  check "mb" "$H" s3 mb "s3://$b"
  check "put -r of a folder" "$H" s3 put -r "$tree" "s3://$b/up"
  check "ls -r of what went up" "$H" s3 ls -r "s3://$b/up/"
  holds "put -r kept the nesting" " 3145733  up/a/b/three-chunks$"
  holds "put -r stored the empty file" " 0  up/c/empty$"
  check "get -r into a new folder" "$H" s3 get -r "s3://$b/up/" "$w.got"
  if diff -r -x empty-dir "$tree" "$w.got" >"$w.err" 2>&1; then ok "diff -r after get -r"; else bad "diff -r"; fi
  # One request an object: the listing's size and tag stand in for a HEAD.
  : >"$w.err"
  if grep -qE "^[0-9.]+ HEAD /$b/" "$S3_LOG_HTTP"; then bad "get -r asked HEAD"; else ok "get -r asked no HEAD"; fi
  check "get -r of a deeper prefix" "$H" s3 get -r "s3://$b/up/a/b/" "$w.deep"
  if [ "$(cd "$w.deep" && find . -type f)" = "./three-chunks" ]; then
    ok "get -r of a prefix takes only what is under it"
  else
    bad "get -r of a prefix"
  fi
  refused "put -r of a file" 2 "is not a folder" "$H" s3 put -r "$tmp/small" "s3://$b/x/"
  refused "get -r into a file" 2 "is not a folder" "$H" s3 get -r "s3://$b/up/" "$tmp/small"
  refused "get -r from a missing bucket" 1 "no such bucket" "$H" s3 get -r "s3://$b-none/" "$w.none"
}

start=$SECONDS
sections=(http refused https pack tree)
for sec in "${sections[@]}"; do
  (w="$tmp/$sec" && "section_$sec" && echo "done $sec") >"$tmp/$sec.report" 2>&1 &
done
wait
for sec in "${sections[@]}"; do
  grep -qx "done $sec" "$tmp/$sec.report" || echo "FAIL section $sec did not run to its end" >>"$tmp/$sec.report"
  grep -avx "done $sec" "$tmp/$sec.report"
done
passed=$(cat "$tmp"/*.report | grep -ac '^ok ')
failed=$(cat "$tmp"/*.report | grep -ac '^FAIL ')
echo "cli_s3_check: $((SECONDS - start)) s"
echo "cli_s3_check: $passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
