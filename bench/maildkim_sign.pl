#!/usr/bin/perl
# maildkim_sign.pl KEY.pem - a Mail::DKIM signer as an administrator would script it:
# relaxed/relaxed rsa-sha256 over standard input, streamed line by line and copied to
# standard output, the DKIM-Signature header printed at the end.
use strict;
use warnings;
use Mail::DKIM::Signer;

my $dkim = Mail::DKIM::Signer->new(
    Algorithm => "rsa-sha256",
    Method    => "relaxed/relaxed",    # plain "relaxed" would mean relaxed/simple
    Domain    => "example.com",
    Selector  => "default",
    KeyFile   => $ARGV[0],
    Headers   => "received:from:to:subject",
);
binmode STDIN;
binmode STDOUT;
while (my $line = <STDIN>) {
    print $line;
    $line =~ s/\r?\n\z/\015\012/;
    $dkim->PRINT($line);
}
$dkim->CLOSE;
print $dkim->signature->as_string, "\n";
