#!/bin/sh
# apt-install.sh PACKAGE... - install the Debian packages that are missing, quietly.
# Servers the tests start themselves (TEST_SERVERS) are installed without being started
# or enabled on this machine: a policy-rc.d refuses every start during the install (one
# the administrator put there is kept), and the newly installed ones are disabled after.
# An MTA that is already installed is never replaced: postfix is left out then.
set -u
missing=
for p in "$@"; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'ok installed' || missing="$missing $p"
done
[ -n "$missing" ] || exit 0
case " $missing " in *" postfix "*)
    mta=$(dpkg-query -W -f='${Package} ${Status}\n' exim4-daemon-light exim4-daemon-heavy sendmail-bin \
        opensmtpd courier-mta nullmailer dma msmtp-mta ssmtp 2>/dev/null | awk '/ok installed/ {print $1; exit}')
    if [ -n "$mta" ]; then
        echo "not installing postfix: the MTA $mta is installed here (the Postfix tests will say so)"
        missing=$(echo "$missing" | sed 's/ postfix\b//')
    else
        echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
    fi
esac
echo "installing Debian packages:$missing"
sudo=; [ "$(id -u)" = 0 ] || sudo="sudo"
policy=/usr/sbin/policy-rc.d
ours=
if [ ! -e $policy ]; then
    printf '#!/bin/sh\n# keyseal make deps: no service starts while test servers are installed\nexit 101\n' |
        $sudo tee $policy >/dev/null && $sudo chmod 755 $policy && ours=1
fi
log=$(mktemp)
{ $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq \
    --no-install-recommends $missing; } >"$log" 2>&1
rc=$?
[ -z "$ours" ] || $sudo rm -f $policy
[ $rc = 0 ] || { cat "$log"; rm -f "$log"; exit 1; }
rm -f "$log"
for s in ${TEST_SERVERS:-}; do
    case " $missing " in *" $s "*)
        $sudo systemctl disable --quiet "$s" 2>/dev/null || $sudo update-rc.d "$s" disable >/dev/null 2>&1 || true
    esac
done
