#!/usr/bin/env bash
# The plinth tool answers --help, refuses unknown commands with exit code 2.
set -u
plinth="$1"
fail() { echo "cli_smoke: $*" >&2; exit 1; }

"$plinth" --help | grep -q "usage: plinth" || fail "--help prints no usage"
"$plinth" >/dev/null 2>&1; [ $? -eq 2 ] || fail "no command must exit 2"
"$plinth" frobnicate >/dev/null 2>&1; [ $? -eq 2 ] || fail "unknown command must exit 2"
# plinth error: codes, Windows errors and errno values, and clean refusals.
expect_exit() {  # expected-code description command...
  local want="$1" what="$2"; shift 2
  "$@" >/dev/null 2>&1; local got=$?
  [ "$got" -eq "$want" ] || fail "$what: exit $got, expected $want"
}
out=$("$plinth" error -1017) || fail "error -1017 failed"
grep -q "^-1017: Access denied$" <<<"$out" || fail "error -1017 printed '$out'"
out=$("$plinth" error -625) || fail "error -625 failed"
grep -q "^-625: Out of memory$" <<<"$out" || fail "error -625 printed '$out'"
out=$("$plinth" error --os 5) || fail "error --os 5 failed"
grep -q "^Windows error 5: library code -1017: Access denied$" <<<"$out" || fail "error --os 5 printed '$out'"
out=$("$plinth" error --os 0x80070002) || fail "error --os 0x80070002 failed"
grep -q "library code -1101: Not found$" <<<"$out" || fail "HRESULT not reduced: '$out'"
out=$("$plinth" error --errno 28) || fail "error --errno 28 failed"
grep -q "^errno 28: library code -1115: The disk is full$" <<<"$out" || fail "error --errno 28 printed '$out'"
"$plinth" error --help | grep -q "usage: plinth error" || fail "error --help prints no usage"
expect_exit 0 "error --help" "$plinth" error --help
expect_exit 1 "unknown code" "$plinth" error -1999
expect_exit 1 "positive code" "$plinth" error 42
expect_exit 1 "unknown Windows error" "$plinth" error --os 65000
expect_exit 1 "unknown errno" "$plinth" error --errno 4000
expect_exit 2 "no arguments" "$plinth" error
expect_exit 2 "non-numeric code" "$plinth" error abc
expect_exit 2 "trailing junk" "$plinth" error -1017x
expect_exit 2 "code out of range" "$plinth" error -99999999999
expect_exit 2 "os number out of range" "$plinth" error --os 4294967296
expect_exit 2 "negative os number" "$plinth" error --os -5
expect_exit 2 "os number missing" "$plinth" error --os
expect_exit 2 "errno not numeric" "$plinth" error --errno ENOENT
expect_exit 2 "unknown option" "$plinth" error --frob 1
# plinth env: the machine check runs and every figure is printed.
out=$("$plinth" env); rc=$?
[ $rc -eq 0 ] || [ $rc -eq 1 ] || fail "env exit $rc"
for field in "operating system:" "language:" "work folder:" "user folder:" "MemTotalMB:" "MemPhysAvailMB:" \
             "MemAvail(1, 100):" "disk working space:" "machine check:"; do
  grep -qF "$field" <<<"$out" || fail "env printed no '$field'"
done
grep -qE "^MemTotalMB: +[1-9][0-9]*$" <<<"$out" || fail "env MemTotalMB is not a figure"
expect_exit 0 "env --help" "$plinth" env --help
expect_exit 2 "env with an argument" "$plinth" env extra
# plinth hash: digests agree with coreutils; the CRC forms of an empty file.
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
head -c 300000 /dev/urandom > "$tmp/data.bin"; : > "$tmp/empty"
want=$(md5sum "$tmp/data.bin" | cut -d' ' -f1)
[ "$("$plinth" hash "$tmp/data.bin" | cut -d' ' -f1)" = "$want" ] || fail "hash (md5) disagrees with md5sum"
want=$(sha1sum "$tmp/data.bin" | cut -d' ' -f1)
[ "$("$plinth" hash --sha1 "$tmp/data.bin" | cut -d' ' -f1)" = "$want" ] || fail "hash --sha1 disagrees with sha1sum"
[ "$("$plinth" hash --crc32 "$tmp/empty")" = "00000000  $tmp/empty" ] || fail "hash --crc32 of an empty file"
[ "$("$plinth" hash --block "$tmp/empty")" = "00000001  $tmp/empty" ] || fail "hash --block of an empty file"
[ "$("$plinth" hash --md5 "$tmp/empty" "$tmp/data.bin" | wc -l)" -eq 2 ] || fail "hash of two files"
expect_exit 1 "hash of a missing file" "$plinth" hash "$tmp/missing"
expect_exit 2 "hash without a file" "$plinth" hash --sha1
expect_exit 2 "hash with an unknown option" "$plinth" hash --sha256 "$tmp/empty"
expect_exit 0 "hash --help" "$plinth" hash --help
# plinth ini and device: a set reads back, other lines stay, refusals and usage.
ini="$tmp/keys.ini"
printf '; kept comment\r\n[Default]\r\nName = one\r\n' > "$ini"
[ "$("$plinth" ini get "$ini" default NAME)" = "one" ] || fail "ini get of an existing key"
"$plinth" ini set "$ini" Default Size 42 || fail "ini set failed"
[ "$("$plinth" ini get "$ini" Default size)" = "42" ] || fail "ini set does not read back"
[ "$(head -c 16 "$ini")" = "; kept comment$(printf '\r')" ] || fail "ini set changed the comment line"
"$plinth" ini set "$tmp/new.ini" Device00 Id "a b" || fail "ini set of a new file failed"
[ "$("$plinth" ini get "$tmp/new.ini" device00 id)" = "a b" ] || fail "ini set of a new file does not read back"
expect_exit 1 "ini get of a missing key" "$plinth" ini get "$ini" Default Missing
expect_exit 1 "ini get of a missing file" "$plinth" ini get "$tmp/none.ini" Default Name
head -c 3000 /dev/urandom > "$tmp/junk.ini"; printf '\0' >> "$tmp/junk.ini"
expect_exit 1 "ini get of a binary file" "$plinth" ini get "$tmp/junk.ini" a b
expect_exit 1 "ini set of a binary file" "$plinth" ini set "$tmp/junk.ini" a b c
expect_exit 1 "ini set of an unusable key" "$plinth" ini set "$ini" Default "a=b" c
expect_exit 0 "ini --help" "$plinth" ini --help
expect_exit 2 "ini without arguments" "$plinth" ini
expect_exit 2 "ini get with too few arguments" "$plinth" ini get "$ini" Default
expect_exit 2 "ini set with too few arguments" "$plinth" ini set "$ini" Default Name
expect_exit 2 "ini with an unknown verb" "$plinth" ini put "$ini" Default Name x
devs="$tmp/devices"; mkdir "$devs"
printf '[Default]\nId=a\n' > "$devs/device00.rdi"
printf '[Device00]\nId=b\n[Device01]\nId=c\n' > "$devs/device100.rdi"
printf '[Other]\n' > "$devs/device02.rdi.tmpXYZ"
want=$(printf 'device00.rdi\n  [Default]\ndevice100.rdi\n  [Device00]\n  [Device01]')
[ "$("$plinth" device list "$devs")" = "$want" ] || fail "device list printed '$("$plinth" device list "$devs")'"
cp "$tmp/junk.ini" "$devs/device03.rdi"
expect_exit 1 "device list with an unreadable file" "$plinth" device list "$devs"
expect_exit 1 "device list of a missing folder" "$plinth" device list "$tmp/nowhere"
expect_exit 0 "device --help" "$plinth" device --help
expect_exit 2 "device without arguments" "$plinth" device
expect_exit 2 "device list without a folder" "$plinth" device list
echo "cli_smoke: ok"
