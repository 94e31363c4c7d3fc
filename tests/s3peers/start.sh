#!/usr/bin/env bash
# Starts the loopback S3 servers the cloud tests talk to, and writes
# OUTDIR/peers.env (KEY=VALUE lines) describing them:
#   http      plain HTTP
#   https     HTTPS, certificate for localhost and 127.0.0.1
#   wrongname HTTPS, certificate for wrong.invalid (must be refused)
# Both certificates come from a throwaway CA made here, so nothing on the
# machine trusts them unless told to (S3_CA_FILE).
# Optional environment: S3PEERS_HTTP_PORT, S3PEERS_HTTPS_PORT,
# S3PEERS_WRONGNAME_PORT (default 0: any free port), S3PEERS_BUCKET
# (pre-created on each server, default plinth-test), S3PEERS_START_TIMEOUT
# (seconds, default 30), S3PEERS_LIFETIME (seconds a server lives when
# nobody stops it, default 7200).
# Stop them with stop.sh OUTDIR.
set -euo pipefail

if [ $# -ne 1 ]; then
  echo "usage: $0 OUTDIR" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")" && pwd -P)
mkdir -p "$1"
out=$(cd "$1" && pwd -P)
names=(http https wrongname)
bucket=${S3PEERS_BUCKET:-plinth-test}
timeout_s=${S3PEERS_START_TIMEOUT:-30}
lifetime=${S3PEERS_LIFETIME:-7200}

fail() {
  echo "s3peers: $*" >&2
  bash "$here/stop.sh" "$out" >&2 || true
  exit 1
}

for tool in node npm openssl; do
  command -v "$tool" >/dev/null || fail "$tool not found; run scripts/deps.sh"
done

# Servers left by an earlier start in the same place.
bash "$here/stop.sh" "$out"
rm -rf "$out/tls" "$out/data" "$out/peers.env"
for n in "${names[@]}"; do rm -f "$out/$n.pid" "$out/$n.out" "$out/$n.log"; done

# npm packages: installed by scripts/deps.sh normally; here as a fallback.
if [ ! -f "$here/node_modules/@20minutes/s3rver/package.json" ] ||
   [ "$here/package-lock.json" -nt "$here/node_modules/.package-lock.json" ]; then
  echo "s3peers: installing npm packages in $here" >&2
  (
    cd "$here"
    # Two starts at once must not both rewrite node_modules.
    exec 9>"${TMPDIR:-/tmp}/plinth20-s3peers-npm.lock"
    flock 9
    if [ ! -f node_modules/@20minutes/s3rver/package.json ] ||
       [ package-lock.json -nt node_modules/.package-lock.json ]; then
      npm ci --no-audit --no-fund >&2
    fi
  ) || fail "npm ci failed in $here (is the npm registry reachable? without network, install the packages once with scripts/deps.sh while online)"
fi

# Throwaway CA and the two server certificates, made fresh each start.
tls="$out/tls"
mkdir -p "$tls"
cat >"$tls/openssl.cnf" <<'EOF'
[req]
distinguished_name = dn
prompt = no
[dn]
CN = plinth20 throwaway test CA
[v3_ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[v3_leaf]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid, issuer
subjectAltName = $ENV::PEER_SAN
EOF
ossl() {
  local log="$tls/openssl.log"
  openssl "$@" >>"$log" 2>&1 || { cat "$log" >&2; fail "openssl $1 failed"; }
}
ec=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes)
PEER_SAN=DNS:unused ossl req -x509 "${ec[@]}" -config "$tls/openssl.cnf" -extensions v3_ca \
  -days 7 -keyout "$tls/ca.key" -out "$tls/ca.pem"
leaf() { # NAME CN SAN
  PEER_SAN=$3 ossl req -new "${ec[@]}" -config "$tls/openssl.cnf" -subj "/CN=$2" \
    -keyout "$tls/$1.key" -out "$tls/$1.csr"
  PEER_SAN=$3 ossl x509 -req -in "$tls/$1.csr" -CA "$tls/ca.pem" -CAkey "$tls/ca.key" \
    -CAcreateserial -CAserial "$tls/ca.srl" -days 7 \
    -extfile "$tls/openssl.cnf" -extensions v3_leaf -out "$tls/$1.pem"
}
leaf localhost localhost "DNS:localhost,IP:127.0.0.1"
leaf wrongname wrong.invalid "DNS:wrong.invalid"

declare -A port_wanted=(
  [http]=${S3PEERS_HTTP_PORT:-0}
  [https]=${S3PEERS_HTTPS_PORT:-0}
  [wrongname]=${S3PEERS_WRONGNAME_PORT:-0}
)
declare -A tls_args=(
  [http]=""
  [https]="--https $tls/localhost.key $tls/localhost.pem"
  [wrongname]="--https $tls/wrongname.key $tls/wrongname.pem"
)
for n in "${names[@]}"; do
  mkdir -p "$out/data/$n"
  # Output goes to files, never to our stdout: whoever runs us (ctest)
  # waits for that pipe to close.
  # shellcheck disable=SC2086 # tls_args is a word list
  node --openssl-legacy-provider "$here/server.js" --port "${port_wanted[$n]}" \
    --dir "$out/data/$n" --lifetime "$lifetime" ${tls_args[$n]} --bucket "$bucket" \
    </dev/null >"$out/$n.out" 2>"$out/$n.log" &
  echo $! >"$out/$n.pid"
done

alive() { # PID; a zombie counts as gone
  local state
  state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null) || return 1
  [ -n "$state" ] && [ "$state" != Z ]
}

declare -A port
deadline=$((SECONDS + timeout_s))
for n in "${names[@]}"; do
  pid=$(cat "$out/$n.pid")
  while :; do
    line=$(grep -m1 '^READY ' "$out/$n.out" 2>/dev/null || true)
    if [ -n "$line" ]; then
      port[$n]=${line#READY }
      break
    fi
    if ! alive "$pid"; then
      fail "the $n server exited before it was ready:
$(tail -n 20 "$out/$n.log")"
    fi
    if [ $SECONDS -ge $deadline ]; then
      fail "the $n server did not answer within ${timeout_s} s (log: $out/$n.log):
$(tail -n 20 "$out/$n.log")"
    fi
    sleep 0.1
  done
done

{
  echo "S3_HTTP_PORT=${port[http]}"
  echo "S3_HTTPS_PORT=${port[https]}"
  echo "S3_WRONGNAME_PORT=${port[wrongname]}"
  echo "S3_HTTP_ENDPOINT=http://127.0.0.1:${port[http]}"
  echo "S3_HTTPS_ENDPOINT=https://localhost:${port[https]}"
  echo "S3_WRONGNAME_ENDPOINT=https://localhost:${port[wrongname]}"
  echo "S3_CA_FILE=$tls/ca.pem"
  echo "S3_ACCESS_KEY=S3RVER"
  echo "S3_SECRET_KEY=S3RVER"
  echo "S3_REGION=us-east-1"
  echo "S3_BUCKET=$bucket"
  echo "S3_DIR_HTTP=$out/data/http"
  echo "S3_DIR_HTTPS=$out/data/https"
  echo "S3_DIR_WRONGNAME=$out/data/wrongname"
  echo "S3_LOG_HTTP=$out/http.log"
  echo "S3_LOG_HTTPS=$out/https.log"
  echo "S3_LOG_WRONGNAME=$out/wrongname.log"
  echo "S3_PID_HTTP=$(cat "$out/http.pid")"
  echo "S3_PID_HTTPS=$(cat "$out/https.pid")"
  echo "S3_PID_WRONGNAME=$(cat "$out/wrongname.pid")"
} >"$out/peers.env.tmp"
mv "$out/peers.env.tmp" "$out/peers.env"
echo "s3peers: http ${port[http]}, https ${port[https]}, wrongname ${port[wrongname]}; env in $out/peers.env"
