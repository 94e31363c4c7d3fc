#!/usr/bin/env bash
# The plinth tool answers --help, refuses unknown commands with exit code 2.
set -u
plinth="$1"
fail() { echo "cli_smoke: $*" >&2; exit 1; }

"$plinth" --help | grep -q "usage: plinth" || fail "--help prints no usage"
"$plinth" --version | grep -Eq "^plinth [0-9]+\.[0-9]+\.[0-9]+$" || fail "--version prints no version"
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
# Streams read to their end: standard input, a fifo, a /proc file (size 0).
want=$(md5sum <"$tmp/data.bin" | cut -d' ' -f1)
[ "$("$plinth" hash - <"$tmp/data.bin")" = "$want  -" ] || fail "hash of standard input"
mkfifo "$tmp/fifo"
cat "$tmp/data.bin" >"$tmp/fifo" &
[ "$("$plinth" hash "$tmp/fifo" | cut -d' ' -f1)" = "$want" ] || fail "hash of a fifo"
wait
[ "$("$plinth" hash /proc/version | cut -d' ' -f1)" = "$(md5sum </proc/version | cut -d' ' -f1)" ] ||
  fail "hash of a /proc file"
expect_exit 1 "hash of a folder" "$plinth" hash "$tmp"
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
# plinth container: put, ls, get, replace, rm, verify, compact and recover, and refusals.
box="$tmp/box.plc"
head -c 5000 /dev/urandom > "$tmp/one.bin"; head -c 70000 /dev/urandom > "$tmp/two.bin"
"$plinth" container put "$box" DATA 1 "$tmp/one.bin" || fail "container put into a new file"
"$plinth" container put "$box" 1145132097 2 "$tmp/two.bin" || fail "container put with a decimal type"
"$plinth" container put "$box" 0x426C6F62 7 "$tmp/empty" || fail "container put of an empty file"
out=$("$plinth" container ls "$box") || fail "container ls"
grep -qE "^DATA 0x44415441 +1 +[0-9]+ +[0-9]+ +5000$" <<<"$out" || fail "container ls lacks DATA 1: '$out'"
grep -qE "^DATA 0x44415441 +2 +[0-9]+ +[0-9]+ +70000$" <<<"$out" || fail "container ls lacks DATA 2: '$out'"
grep -qE "^Blob 0x426C6F62 +7 +[0-9]+ +[0-9]+ +0$" <<<"$out" || fail "container ls lacks Blob 7: '$out'"
grep -qE "^ChMp 0x43684D70 +0 " <<<"$out" || fail "container ls lacks the map's own chunk: '$out'"
[ "$(grep -c ' 0x' <<<"$out")" -eq 4 ] || fail "container ls shows other chunks: '$out'"
"$plinth" container get "$box" DATA 1 > "$tmp/got" && cmp -s "$tmp/one.bin" "$tmp/got" || fail "container get DATA 1"
"$plinth" container get "$box" 0x44415441 0x2 > "$tmp/got" && cmp -s "$tmp/two.bin" "$tmp/got" ||
  fail "container get DATA 2"
"$plinth" container get "$box" Blob 7 > "$tmp/got" && [ ! -s "$tmp/got" ] || fail "container get of an empty chunk"
"$plinth" container put "$box" DATA 1 "$tmp/two.bin" || fail "container put over a chunk"
"$plinth" container get "$box" DATA 1 > "$tmp/got" && cmp -s "$tmp/two.bin" "$tmp/got" || fail "replaced chunk"
"$plinth" container put "$box" DATA 1 "$tmp/one.bin" || fail "container put back"
"$plinth" container rm "$box" Blob 7 || fail "container rm"
out=$("$plinth" container info "$box") || fail "container info"
for line in "writer version: +0x0111" "generation: +current" "byte order: +little-endian" "unsaved marker: +0$" \
            "address step: +4" "data start: +512" "encryption marker: +0$" "types: +2$" "chunks: +3$"; do
  grep -qE "^$line" <<<"$out" || fail "container info lacks '$line': '$out'"
done
"$plinth" container verify "$box" | grep -q ": ok: 2 chunks$" || fail "container verify of a saved file"
# One flipped byte inside DATA 2's data: the map is sound, the chunk is not.
cp "$box" "$tmp/flipped.plc"
at=$("$plinth" container ls "$box" | awk '$1 == "DATA" && $3 == 2 {print $4}')
printf '\377' | dd of="$tmp/flipped.plc" bs=1 seek=$((at + 64 + 1000)) conv=notrunc status=none
cmp -s "$box" "$tmp/flipped.plc" && fail "the byte flip changed nothing"
expect_exit 1 "container verify of a flipped data byte" "$plinth" container verify "$tmp/flipped.plc"
"$plinth" container verify "$tmp/flipped.plc" 2>&1 >/dev/null | grep -q "DATA 0x44415441 id 2 is damaged" ||
  fail "container verify does not name the damaged chunk"
(cd "$tmp" && "$plinth" container get --help | grep -q "^usage: plinth container") ||
  fail "container get --help shows no usage"
[ -e "$tmp/--help" ] && fail "container get --help touched a file named --help"
expect_exit 2 "container verify with an unknown option" "$plinth" container verify --bogus "$box"
"$plinth" container compact "$box" "$tmp/small.plc" >/dev/null || fail "container compact"
"$plinth" container verify "$tmp/small.plc" >/dev/null || fail "container verify of the compacted file"
[ "$(stat -c %s "$tmp/small.plc")" -le "$(stat -c %s "$box")" ] || fail "container compact made the file larger"
"$plinth" container get "$tmp/small.plc" DATA 2 > "$tmp/got" && cmp -s "$tmp/two.bin" "$tmp/got" ||
  fail "container get from the compacted file"
cp "$box" "$tmp/broken.plc"
printf '\041\144\141\102' | dd of="$tmp/broken.plc" bs=1 seek=32 conv=notrunc status=none
"$plinth" container info "$tmp/broken.plc" 2>/dev/null | grep -q "^unsaved marker: .*not fully saved" ||
  fail "container info does not show the unsaved marker"
expect_exit 1 "container verify of an unsaved file" "$plinth" container verify "$tmp/broken.plc"
out=$("$plinth" container recover "$tmp/broken.plc" "$tmp/fixed.plc") || fail "container recover"
grep -qE "^kept +DATA 0x44415441 +1 " <<<"$out" || fail "container recover did not keep DATA 1: '$out'"
grep -qE "^2 kept, " <<<"$out" || fail "container recover kept a wrong count: '$out'"
"$plinth" container verify "$tmp/fixed.plc" >/dev/null || fail "container verify of the recovered file"
for id in 1 2; do
  "$plinth" container get "$tmp/fixed.plc" DATA $id > "$tmp/got" || fail "container get $id after recover"
done
cmp -s "$tmp/two.bin" "$tmp/got" || fail "recovered chunk differs"
expect_exit 1 "container get from a missing file" "$plinth" container get "$tmp/none.plc" DATA 1
expect_exit 1 "container ls of a missing file" "$plinth" container ls "$tmp/none.plc"
expect_exit 1 "container verify of a non-container" "$plinth" container verify "$tmp/junk.ini"
expect_exit 1 "container get of an unknown id" "$plinth" container get "$box" DATA 99
expect_exit 1 "container get of an unknown type" "$plinth" container get "$box" Blob 7
expect_exit 1 "container rm of an unknown id" "$plinth" container rm "$box" DATA 99
expect_exit 1 "container put of a missing source" "$plinth" container put "$box" DATA 3 "$tmp/none"
expect_exit 1 "container compact onto an existing file" "$plinth" container compact "$box" "$tmp/small.plc"
expect_exit 2 "container type of three characters" "$plinth" container get "$box" DAT 1
expect_exit 2 "container negative type" "$plinth" container get "$box" 0x80000000 1
expect_exit 2 "container id not numeric" "$plinth" container get "$box" DATA x1
expect_exit 2 "container without arguments" "$plinth" container
expect_exit 2 "container with an unknown verb" "$plinth" container frob "$box"
expect_exit 2 "container get without an id" "$plinth" container get "$box" DATA
expect_exit 0 "container --help" "$plinth" container --help
"$plinth" container get "$box" DATA 1 > "$tmp/got" && cmp -s "$tmp/one.bin" "$tmp/got" ||
  fail "refusals changed the container"
# plinth pack, verify, unpack: a generated tree round trip, damage found, hostile catalogues refused.
src="$tmp/tree"; mkdir -p "$src/a/b/c" "$src/empty dir" "$src/x/y"
: > "$src/empty.txt"
head -c 2621440 /dev/urandom > "$src/a/big.bin"  # three chunks of 1 MiB, the last one partial
head -c 1048576 /dev/urandom > "$src/a/b/exact.bin"
for i in $(seq 1 40); do head -c $((i * 997)) /dev/urandom > "$src/a/b/c/f$i.bin"; done
printf 'caf\303\251\n' > "$src/x/y/"$'na\303\257ve file.txt'
echo x > "$src/x/back\\slash"  # a name that would not restore everywhere: skipped
chmod 0600 "$src/a/b/exact.bin"; chmod 0755 "$src/a/b/c/f3.bin"; chmod 0444 "$src/empty.txt"
touch -d "@1500000000.123456789" "$src/a/big.bin"; touch -d "@86400" "$src/x/y"
ln -s a/big.bin "$src/link"
listing() {
  (cd "$1" && find . -mindepth 1 \( -type d -printf '%p folder %m %T@\n' \) -o \( -type f -printf '%p file %m %s %T@\n' \) |
    sort)
}
pk="$tmp/tree.plc"
out=$("$plinth" pack "$src" "$pk" 2>"$tmp/err") || fail "pack failed: $(cat "$tmp/err")"
grep -q "skipped link (symbolic link)" "$tmp/err" || fail "pack did not report the symbolic link"
grep -q 'skipped x/back\\slash (name not storable' "$tmp/err" || fail "pack did not report the backslash"
grep -qE "^packed 44 files \(4487562 bytes\) and 6 folders into .*: 45 chunks" <<<"$out" || fail "pack printed '$out'"
out=$("$plinth" verify "$pk") || fail "verify of a fresh pack"
grep -qE ": ok: 44 files, 50 entries, 45 chunks, 4487562 bytes$" <<<"$out" || fail "verify printed '$out'"
"$plinth" unpack "$pk" "$tmp/back" >/dev/null || fail "unpack failed"
diff -r --exclude=link --exclude='back*slash' "$src" "$tmp/back" >/dev/null || fail "unpacked tree differs"
[ ! -e "$tmp/back/link" ] || fail "unpack made the skipped link"
diff <(listing "$src" | grep -v 'back\\slash') <(listing "$tmp/back") >/dev/null || fail "unpacked modes or times differ"
cp "$pk" "$tmp/keep.plc"
expect_exit 1 "pack onto an existing file" "$plinth" pack "$src" "$pk"
cmp -s "$pk" "$tmp/keep.plc" || fail "pack changed an existing file"
expect_exit 1 "pack of a missing folder" "$plinth" pack "$tmp/nowhere" "$tmp/none.plc"
[ ! -e "$tmp/none.plc" ] || fail "pack of a missing folder left a file"
expect_exit 1 "pack of a file" "$plinth" pack "$tmp/one.bin" "$tmp/none.plc"
expect_exit 1 "pack into a missing folder" "$plinth" pack "$src" "$tmp/nowhere/x.plc"
expect_exit 1 "unpack into a folder that is not empty" "$plinth" unpack "$pk" "$tmp/back"
expect_exit 1 "unpack of a missing file" "$plinth" unpack "$tmp/none.plc" "$tmp/back2"
expect_exit 1 "verify of a missing file" "$plinth" verify "$tmp/none.plc"
expect_exit 1 "verify of a container without catalogue" "$plinth" verify "$box"
expect_exit 2 "pack without a file" "$plinth" pack "$src"
expect_exit 2 "unpack without a folder" "$plinth" unpack "$pk"
expect_exit 2 "verify with two files" "$plinth" verify "$pk" "$pk"
for c in pack unpack verify; do expect_exit 0 "$c --help" "$plinth" $c --help; done
# Help at every level, wherever --help or -h stands: usage on standard
# output, exit 0, and no file of that name made or read.
for args in "ini get" "ini set" "ini get f s" "container ls" "container get f" "container put f DATA 1" \
            "container verify" "container compact f" "container recover" "error" "env" "device" "hash" \
            "cloud uri" "pack" "unpack" "verify"; do
  for h in --help -h; do
    # shellcheck disable=SC2086 # the words are the command
    out=$(cd "$tmp" && "$plinth" $args $h 2>/dev/null) || fail "$args $h: exit $?"
    grep -q "^usage: plinth ${args%% *}" <<<"$out" || fail "$args $h prints no usage"
  done
done
[ -e "$tmp/--help" ] || [ -e "$tmp/-h" ] && fail "a --help made a file"
# A flipped byte inside a stored data chunk: the container's checksum catches it.
# The last chunk of a/big.bin is the one data chunk of 524288 bytes.
read -r id addr < <("$plinth" container ls "$pk" | awk '$1 == "PkDa" && $6 == 524288 { print $3, $4 }')
[ -n "$addr" ] || fail "container ls shows no data chunk of 524288 bytes"
cp "$pk" "$tmp/flipped.plc"
byte=$(dd if="$tmp/flipped.plc" bs=1 skip=$((addr + 64 + 100)) count=1 status=none | od -An -tu1 | tr -d ' ')
printf "\\$(printf '%03o' $((byte ^ 1)))" | dd of="$tmp/flipped.plc" bs=1 seek=$((addr + 64 + 100)) conv=notrunc status=none
cmp -s "$pk" "$tmp/flipped.plc" && fail "the byte was not flipped"
"$plinth" verify "$tmp/flipped.plc" >/dev/null 2>"$tmp/err" && fail "verify missed a flipped byte"
grep -q "a/big.bin: chunk $id: unreadable: -1127" "$tmp/err" || fail "verify did not name the damage: $(cat "$tmp/err")"
"$plinth" unpack "$tmp/flipped.plc" "$tmp/back2" >/dev/null 2>&1 && fail "unpack of a damaged container succeeded"
[ ! -e "$tmp/back2/a/big.bin" ] || fail "unpack kept a damaged file"
cmp -s "$src/a/b/exact.bin" "$tmp/back2/a/b/exact.bin" || fail "unpack of a damaged container lost a sound file"
# A chunk replaced with other bytes under a valid checksum: the block hash catches it.
cp "$pk" "$tmp/swapped.plc"
"$plinth" container get "$pk" PkDa "$id" > "$tmp/chunk"
printf 'X' | dd of="$tmp/chunk" bs=1 seek=5 conv=notrunc status=none
"$plinth" container put "$tmp/swapped.plc" PkDa "$id" "$tmp/chunk" || fail "container put over a data chunk"
"$plinth" verify "$tmp/swapped.plc" >/dev/null 2>"$tmp/err" && fail "verify missed a replaced chunk"
grep -q "a/big.bin: chunk $id: block hash mismatch" "$tmp/err" || fail "verify printed: $(cat "$tmp/err")"
"$plinth" container put "$tmp/swapped.plc" PkDa 999 "$tmp/chunk" || fail "container put of a stray chunk"
"$plinth" verify "$tmp/swapped.plc" 2>&1 | grep -q "chunk 999 belongs to no file" || fail "verify missed a stray chunk"
# Hand-made catalogues: one folder entry each, safe or hostile.
catalogue() {  # path -> catalogue bytes on stdout
  local path="$1" n=${#1}
  printf 'tCkP\001\000\001\000\060\000\000\000\001\000\000\000aDkP\002\000\000\000\024\000\000\000'
  printf '\000\000\020\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000'
  printf "\\$(printf '%03o' $((40 + n)))\\000\\000\\000\\002\\000\\$(printf '%03o' "$n")\\000\\355\\001\\000\\000"
  printf '\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000\000'
  printf '%s' "$path"
}
catalogue "good-dir" > "$tmp/cat.bin"
"$plinth" container put "$tmp/good.plc" PkCt 1 "$tmp/cat.bin" || fail "container put of a catalogue"
"$plinth" unpack "$tmp/good.plc" "$tmp/good" >/dev/null || fail "unpack of a hand-made catalogue"
[ -d "$tmp/good/good-dir" ] || fail "the hand-made catalogue made no folder"
for hostile in "../evil" "sub/../../evil" "/tmp/evil-abs" "a//b"; do
  catalogue "$hostile" > "$tmp/cat.bin"
  rm -f "$tmp/hostile.plc"
  "$plinth" container put "$tmp/hostile.plc" PkCt 1 "$tmp/cat.bin" || fail "container put of a hostile catalogue"
  "$plinth" unpack "$tmp/hostile.plc" "$tmp/h/in" >/dev/null 2>"$tmp/err" && fail "unpack took '$hostile'"
  grep -q "catalogue of .* is unusable: -1013" "$tmp/err" || fail "unpack of '$hostile' printed: $(cat "$tmp/err")"
  expect_exit 1 "verify of '$hostile'" "$plinth" verify "$tmp/hostile.plc"
done
[ ! -e "$tmp/h/evil" ] && [ ! -e "$tmp/evil" ] && [ ! -e /tmp/evil-abs ] || fail "a hostile path was made"
# plinth cloud: virtual-host and path-style locations, a kept port, refusals.
out=$("$plinth" cloud uri "https://Backups.s3.eu-west-1.amazonaws.com/daily/set1/") || fail "cloud uri of a virtual host failed"
for line in "host: s3.eu-west-1.amazonaws.com" "bucket: Backups" "path: daily/set1/" "flags: 0x4021" \
            "virtual host: yes" "https: yes" "uri: Backups.s3.eu-west-1.amazonaws.com/daily/set1" "metadata: reliable"; do
  grep -qxF "$line" <<<"$out" || fail "cloud uri of a virtual host printed no '$line': $out"
done
out=$("$plinth" cloud uri "http://127.0.0.1:9000/bucket/a/b" --flags 0) || fail "cloud uri of a path-style location failed"
for line in "host: 127.0.0.1:9000" "bucket: bucket" "path: a/b/" "flags: 0x0" "virtual host: no" "https: no" \
            "uri: 127.0.0.1:9000/bucket/a/b" "metadata: not relied on"; do
  grep -qxF "$line" <<<"$out" || fail "cloud uri of a path-style location printed no '$line': $out"
done
out=$("$plinth" cloud uri acct/container --flags 0x200 --option) || fail "cloud uri of a bare Azure account failed"
grep -qxF "host: acct.blob.core.usgovcloudapi.net" <<<"$out" || fail "cloud uri of a bare Azure account: $out"
"$plinth" cloud uri s3.amazonaws.com 2>&1 >/dev/null | grep -q "names no bucket" || fail "cloud uri without a bucket"
expect_exit 1 "cloud uri without a bucket" "$plinth" cloud uri s3.amazonaws.com
expect_exit 1 "cloud uri without a host" "$plinth" cloud uri /bucket/path
"$plinth" cloud uri h/b --flags 12z 2>&1 >/dev/null | grep -q -- "--flags takes a 32-bit number, not 12z" \
  || fail "cloud uri --flags 12z did not name the problem"
expect_exit 2 "cloud uri with a bad --flags value" "$plinth" cloud uri h/b --flags 12z
expect_exit 2 "cloud uri with --flags past 32 bits" "$plinth" cloud uri h/b --flags 0x100000000
expect_exit 2 "cloud uri without a value for --flags" "$plinth" cloud uri h/b --flags
expect_exit 2 "cloud uri without a location" "$plinth" cloud uri
expect_exit 2 "cloud with an unknown subcommand" "$plinth" cloud url h/b
"$plinth" cloud --help | grep -q "usage: plinth cloud uri" || fail "cloud --help prints no usage"
expect_exit 0 "cloud uri --help" "$plinth" cloud uri --help
# plinth s3 and the bucket forms of pack: help at every level, usage errors, missing keys (no server needed).
for args in "s3" "s3 mb" "s3 ls" "s3 stat" "s3 put" "s3 get" "s3 cp" "s3 rm"; do
  # shellcheck disable=SC2086 # the words are the command
  "$plinth" $args --help | grep -q "^usage: plinth $args" || fail "$args --help prints no usage"
done
"$plinth" --help | grep -q "s3 mb|ls|stat|put|get|cp|rm" || fail "--help does not list s3"
"$plinth" pack --help | grep -q -- "--to s3://BUCKET/KEY" || fail "pack --help does not show --to"
"$plinth" unpack --help | grep -q -- "--from s3://BUCKET/KEY" || fail "unpack --help does not show --from"
expect_exit 2 "s3 without a command" "$plinth" s3
expect_exit 2 "s3 with an unknown command" "$plinth" s3 frob
expect_exit 2 "s3 get with one argument" "$plinth" s3 get s3://bucket/key
expect_exit 2 "s3 ls of a path" "$plinth" s3 ls /tmp
expect_exit 2 "s3 ls -r of a bucket without a name" "$plinth" s3 ls -r s3://
expect_exit 2 "s3 put of standard input to no key" "$plinth" s3 put - s3://bucket/
expect_exit 2 "s3 rm of a bucket" "$plinth" s3 rm s3://bucket
expect_exit 2 "s3 mb of a key" "$plinth" s3 mb s3://bucket/key
expect_exit 2 "s3 cp of an object onto itself" "$plinth" s3 cp s3://bucket/k s3://bucket/k
expect_exit 2 "-r outside ls" "$plinth" s3 stat -r s3://bucket/key
expect_exit 2 "--progress outside transfers" "$plinth" s3 ls --progress s3://bucket
expect_exit 2 "pack --to without a key" "$plinth" pack --to s3://bucket/ "$src"
expect_exit 2 "pack --to with a FILE too" "$plinth" pack --to s3://bucket/k "$src" "$tmp/x.plc"
expect_exit 2 "unpack --from a file" "$plinth" unpack --from "$pk" "$tmp/back3"
expect_exit 2 "verify of a local file with --region" "$plinth" verify --region eu-west-1 "$pk"
out=$(env -i HOME="$tmp" "$plinth" s3 ls s3://bucket 2>&1); rc=$?
[ $rc -eq 1 ] && grep -q "no keys: cannot read the credentials file $tmp/.aws/credentials" <<<"$out" ||
  fail "s3 without keys: exit $rc, '$out'"
out=$(env -i HOME="$tmp" AWS_ACCESS_KEY_ID=id "$plinth" s3 ls s3://bucket 2>&1); rc=$?
[ $rc -eq 1 ] && grep -q "AWS_ACCESS_KEY_ID is set but AWS_SECRET_ACCESS_KEY is not" <<<"$out" ||
  fail "s3 with half the keys: exit $rc, '$out'"
echo "cli_smoke: ok"
