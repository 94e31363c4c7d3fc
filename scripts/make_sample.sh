#!/usr/bin/env bash
# Makes the sample folder of the main job: the same tree on every run.
#   scripts/make_sample.sh DIR     (DIR must not exist)
# About 330 files and 9 MB in nested folders: text and binary files of many
# sizes, an empty file, empty folders, files of exactly one buffer (1 MiB)
# and one byte more, a file of several buffers, a name with spaces and
# accented letters, modes from read-only to executable, a read-only folder,
# a symbolic link (which pack skips), and fixed modification times with
# nanoseconds. Binary data comes from a seeded xorshift generator.
set -euo pipefail
dir="$1"
[ ! -e "$dir" ] || { echo "make_sample: $dir exists" >&2; exit 1; }
mkdir -p "$dir"
perl - "$dir" <<'PERL' |
use strict;
use warnings;
my $root = shift;
my $state = 2463534242;
sub bytes {  # n pseudo-random bytes
  my ($n) = @_;
  my @words;
  for (my $i = 0; $i < ($n + 3) >> 2; ++$i) {
    $state ^= ($state << 13) & 0xFFFFFFFF;
    $state ^= $state >> 17;
    $state ^= ($state << 5) & 0xFFFFFFFF;
    push @words, $state;
  }
  return substr(pack("V*", @words), 0, $n);
}
sub text {  # n bytes of numbered lines
  my ($n, $tag) = @_;
  my $s = "";
  my $line = 0;
  $s .= sprintf("%s line %05d: the quick brown fox jumps over the lazy dog\n", $tag, $line++) while length($s) < $n;
  return substr($s, 0, $n);
}
sub put {
  my ($path, $data, $mode) = @_;
  open(my $fh, ">:raw", "$root/$path") or die "make_sample: $path: $!";
  print $fh $data;
  close($fh) or die "make_sample: $path: $!";
  chmod($mode // 0644, "$root/$path");
}
my @times;  # path, seconds, nanoseconds: printed for the shell to apply
sub when { my ($path, $k) = @_; push @times, [$path, 1600000000 + $k * 86413, ($k * 7919 * 104729) % 1000000000]; }

my $k = 0;
for my $a (0 .. 3) {
  for my $b (0 .. 4) {
    my $folder = sprintf("tree/a%d/b%d", $a, $b);
    system("mkdir", "-p", "$root/$folder") == 0 or die;
    for my $c (0 .. 15) {
      my $size = ($k * 2654435761) % 12000;
      my $name = sprintf("%s/%s%02d.%s", $folder, $c % 2 ? "data" : "note", $c, $c % 2 ? "bin" : "txt");
      put($name, $c % 2 ? bytes($size) : text($size, $name), $c % 5 == 0 ? 0755 : 0644);
      when($name, $k++);
    }
  }
}
system("mkdir", "-p", "$root/big", "$root/empty-dir", "$root/nested/empty/deeper", "$root/locked") == 0 or die;
put("big/several-buffers.bin", bytes(5 * 1048576 + 12345));
put("big/one-buffer.bin", bytes(1048576));
put("big/one-buffer-and-one.bin", bytes(1048577));
put("empty.txt", "");
put("read-only.txt", text(3000, "ro"), 0444);
put("private.bin", bytes(777), 0600);
put("naïve café notes.txt", text(5000, "utf8"));
put("locked/inside.txt", text(100, "locked"));
for my $p ("big/several-buffers.bin", "big/one-buffer.bin", "big/one-buffer-and-one.bin", "empty.txt",
           "read-only.txt", "private.bin", "naïve café notes.txt", "locked/inside.txt") {
  when($p, $k++);
}
symlink("empty.txt", "$root/skipped-link") or die;
# Folders last, deepest first, so that making their contents changes nothing.
for my $f (sort { ($b =~ tr{/}{}) <=> ($a =~ tr{/}{}) or $a cmp $b }
           (map({ my $a = $_; ("tree/a$a", map({ "tree/a$a/b$_" } 0 .. 4)) } 0 .. 3),
            qw(tree big empty-dir nested/empty/deeper nested/empty nested locked))) {
  when($f, $k++);
}
printf("%d.%09d %s\n", $_->[1], $_->[2], $_->[0]) for @times;
PERL
while read -r stamp path; do
  touch -h -d "@$stamp" "$dir/$path"
done
chmod 0555 "$dir/locked"
