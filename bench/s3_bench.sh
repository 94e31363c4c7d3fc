#!/usr/bin/env bash
# plinth s3 against rclone, the aws CLI and a single curl request, through
# one loopback S3 server (tests/s3peers), side by side in one run.
#
#   bash bench/s3_bench.sh [PLINTH] [RUNS]
#
# PLINTH: the tool to measure (default build/bench/plinth, a Release build);
# RUNS: repetitions of each measurement (default 5). Prints, for each
# workload, the median wall time of every client and its ratio to plinth's,
# and the peak resident memory of plinth's 1 GiB upload and download.
# Workloads: a 1 GiB object put, got into a file and got to a pipe; 1,000
# objects of 4 KiB put and got
# (one process each way: plinth s3 put -r / get -r, rclone copy, aws s3 cp
# --recursive).
set -euo pipefail
cd "$(dirname "$0")/.."
plinth=$(realpath "${1:-build/bench/plinth}")
runs=${2:-5}
[ -x "$plinth" ] || { echo "s3_bench: $plinth is not built" >&2; exit 2; }
for tool in rclone /usr/bin/aws curl /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "s3_bench: $tool missing (scripts/deps.sh)" >&2; exit 2; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/s3bench.XXXXXX")
peers="$work/peers"
cleanup() {
  bash tests/s3peers/stop.sh "$peers" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
bash tests/s3peers/start.sh "$peers" >/dev/null
# shellcheck disable=SC1091
. "$peers/peers.env"

endpoint=$S3_HTTP_ENDPOINT
bucket=$S3_BUCKET
export AWS_ACCESS_KEY_ID=$S3_ACCESS_KEY AWS_SECRET_ACCESS_KEY=$S3_SECRET_KEY AWS_REGION=$S3_REGION
export AWS_ENDPOINT_URL=$endpoint AWS_EC2_METADATA_DISABLED=true AWS_SHARED_CREDENTIALS_FILE=/dev/null
unset AWS_CA_BUNDLE AWS_PROFILE
cat >"$work/aws.cfg" <<EOF
[default]
region = $S3_REGION
s3 =
  addressing_style = path
EOF
export AWS_CONFIG_FILE=$work/aws.cfg
export RCLONE_CONFIG_S_TYPE=s3 RCLONE_CONFIG_S_PROVIDER=Other RCLONE_CONFIG_S_FORCE_PATH_STYLE=true
export RCLONE_CONFIG_S_ACCESS_KEY_ID=$S3_ACCESS_KEY RCLONE_CONFIG_S_SECRET_ACCESS_KEY=$S3_SECRET_KEY
export RCLONE_CONFIG_S_REGION=$S3_REGION RCLONE_CONFIG_S_ENDPOINT=$endpoint

# Inputs: one 1 GiB file of random bytes, 1,000 files of 4 KiB.
head -c $((1 << 30)) /dev/urandom >"$work/big"
mkdir -p "$work/small"
for i in $(seq -w 1 1000); do head -c 4096 /dev/urandom >"$work/small/f$i"; done

# time_of COMMAND...: wall seconds of one run.
time_of() {
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null 2>"$work/err" || { echo "s3_bench: failed: $*" >&2; cat "$work/err" >&2; exit 1; }
  end=$(date +%s.%N)
  echo "$end - $start" | bc
}
median() { sort -g | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }

# measure NAME COMMAND...: the median of $runs runs, kept in $result.
declare -A result
measure() {
  local name=$1
  shift
  local t=()
  for _ in $(seq "$runs"); do t+=("$(time_of "$@")"); done
  result[$name]=$(printf '%s\n' "${t[@]}" | median)
}

# This aws CLI takes the endpoint on its command line only.
aws_s3() { /usr/bin/aws --endpoint-url "$endpoint" s3 "$@"; }

curl_s3() {  # METHOD KEY [curl args]
  local method=$1 key=$2
  shift 2
  curl -sf --aws-sigv4 "aws:amz:$S3_REGION:s3" --user "$S3_ACCESS_KEY:$S3_SECRET_KEY" \
    -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" -X "$method" "$endpoint/$bucket/$key" "$@"
}

measure put.plinth "$plinth" s3 put --quiet "$work/big" "s3://$bucket/big.plinth"
measure put.rclone rclone copyto --config /dev/null --ignore-times "$work/big" "s:$bucket/big.rclone"
measure put.aws aws_s3 cp --only-show-errors "$work/big" "s3://$bucket/big.aws"
measure put.curl curl_s3 PUT big.curl -T "$work/big"
measure get.plinth "$plinth" s3 get --quiet "s3://$bucket/big.plinth" "$work/out"
measure get.rclone rclone copyto --config /dev/null --ignore-times "s:$bucket/big.plinth" "$work/out"
measure get.aws aws_s3 cp --only-show-errors "s3://$bucket/big.plinth" "$work/out"
measure get.curl curl_s3 GET big.plinth -o "$work/out"
# The same download to a pipe: the transfer alone, without the disk (plinth
# get to a file also syncs it before its rename; the others do not).
measure pipe.plinth "$plinth" s3 get --quiet "s3://$bucket/big.plinth" -
measure pipe.rclone rclone cat --config /dev/null "s:$bucket/big.plinth"
measure pipe.aws aws_s3 cp --only-show-errors "s3://$bucket/big.plinth" -
measure pipe.curl curl_s3 GET big.plinth
measure smallput.plinth "$plinth" s3 put -r --quiet "$work/small" "s3://$bucket/small.plinth/"
measure smallput.rclone rclone copy --config /dev/null --ignore-times "$work/small" "s:$bucket/small.rclone/"
measure smallput.aws aws_s3 cp --recursive --only-show-errors "$work/small" "s3://$bucket/small.aws/"
rm -rf "$work/got" && mkdir -p "$work/got"
measure smallget.plinth "$plinth" s3 get -r --quiet "s3://$bucket/small.plinth/" "$work/got"
measure smallget.rclone rclone copy --config /dev/null --ignore-times "s:$bucket/small.plinth/" "$work/got"
measure smallget.aws aws_s3 cp --recursive --only-show-errors "s3://$bucket/small.plinth/" "$work/got"

peak() {  # COMMAND...: peak resident set in MiB
  /usr/bin/time -f %M "$@" 2>&1 >/dev/null | tail -n 1 | awk '{printf "%.0f", $1 / 1024}'
}
rss_put=$(peak "$plinth" s3 put --quiet "$work/big" "s3://$bucket/big.rss")
rss_get=$(peak "$plinth" s3 get --quiet "s3://$bucket/big.rss" "$work/out")

printf '%-10s %10s %10s %10s %10s\n' workload plinth rclone aws curl
for w in put get pipe smallput smallget; do
  p=${result[$w.plinth]}
  line=$(printf '%-10s %9.2fs' "$w" "$p")
  for c in rclone aws curl; do
    v=${result[$w.$c]:-}
    if [ -n "$v" ]; then line+=$(printf ' %6.2fs %4.2fx' "$v" "$(echo "$v / $p" | bc -l)"); else line+=$(printf ' %12s' -); fi
  done
  echo "$line"
done
echo "(ratio: the client's median time over plinth's; above 1 means plinth is faster)"
echo "peak RSS of plinth: put 1 GiB ${rss_put} MiB, get 1 GiB ${rss_get} MiB"
