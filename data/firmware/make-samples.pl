#!/usr/bin/perl
# Writes the sample firmware images of the simulated drive into this folder:
#   raw-2.2.0.S     kind 1: raw code at word address 0x3000000 and an identification block;
#                   the post-processor (data/bin/postprocess.exe) turns it into raw-2.2.0.sx
#   drive-2.1.7.sx  kind 2: a hybrid image, identification block, then STX and binary code
#   drive-2.0.9.S   kind 3: code and the version word at word address 0x86, no block
# Addresses count 16-bit words; every record carries a correct checksum.
use strict;
use warnings;

sub record {
    my ($type, $address, $data) = @_;
    my $width = ($type eq "S3" || $type eq "S7") ? 4 : 2;
    my $body = pack($width == 4 ? "N" : "n", $address) . $data;
    my $count = length($body) + 1;
    my $sum = $count;
    $sum += $_ for unpack("C*", $body);
    return sprintf("%s%02X%s%02X\r\n", $type, $count, uc unpack("H*", $body), (~$sum) & 0xFF);
}

# App code, reserved, version, software and hardware fingerprints, then 4 reserved bytes.
sub identification {
    my ($app, $version, $sf, $hf) = @_;
    return record("S3", 0x8000000, pack("vvVVVV", $app, 0, $version, $sf, $hf, 0));
}

sub code {
    my ($bytes, $seed) = @_;
    my $data = "";
    my $x = $seed;
    for (1 .. $bytes) { $x = ($x * 1103515245 + 12345) & 0x7FFFFFFF; $data .= chr(($x >> 16) & 0xFF); }
    return $data;
}

sub code_records {
    my ($start, $data) = @_;
    my $text = "";
    for (my $offset = 0; $offset < length($data); $offset += 32) {
        $text .= record("S3", $start + $offset / 2, substr($data, $offset, 32));
    }
    return $text;
}

sub write_file {
    my ($name, $content) = @_;
    open(my $out, ">:raw", $name) or die "$name: $!";
    print $out $content;
    close($out) or die "$name: $!";
}

my $header = sub { record("S0", 0, $_[0]) };

write_file("raw-2.2.0.S",
    $header->("raw-2.2.0") . code_records(0x3000000, code(32 * 1024, 7))
    . identification(0x0012, 0x00020200, 0x0001C4D5, 0x00000004)
    . record("S7", 0, ""));

write_file("drive-2.1.7.sx",
    $header->("drive-2.1.7") . identification(0x0012, 0x00020107, 0x0001A2B3, 0x00000004)
    . record("S7", 0, "") . "\x02" . code(48 * 1024, 11));

write_file("drive-2.0.9.S",
    $header->("drive-2.0.9") . code_records(0x100, code(8 * 1024, 5))
    . record("S3", 0x86, pack("V", 0x00020009)) . record("S7", 0, ""));
