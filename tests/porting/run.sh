#!/bin/sh
# run.sh TEMPLATES COMMAND...: runs the daemon on the platform of stubs, in a sandbox, until it ends: as it should with the
# configuration's templates, and with the defined status without them.
set -eu
templates=$1
shift

fail() {
    echo "$1; it said:" >&2
    cat /tmp/errors >&2
    exit 1
}

says() {
    grep -qxF "$1" /tmp/errors || fail "the daemon did not say \"$1\""
}

cp "$templates"/* /etc/bird
"$@" 2>/tmp/errors || fail "the daemon ended with $?"
says "vyrwrap_init"
says "Static init done"
says " Event Loop"
[ "$(tail -n 1 /tmp/errors)" = "3 I'M @ END OF VYRWRAP!!" ] || fail "the daemon's last words are others"

cat >/tmp/expected <<'END'
protocol static {
  ipv4;
  route 10.1.0.0/16 metric 5 via 192.168.10.2 {
    krt_metric = 5;
    preference = 256;
  };
}
END
cmp /tmp/expected /tmp/vyr_static.conf || fail "the store's one route is not in the file"
for file in /tmp/vyr.conf /tmp/vyr_log.conf /tmp/vyr_app.conf; do
    [ -s $file ] || fail "$file was not written"
done
for line in 'local mac "02:02:02:02:02:02";' 'local serial "STUB000001";'; do
    grep -qF "$line" /tmp/vyr_oap.conf || fail "the overlay's file does not say $line"
done

# Started with none of the three, and held at a template that nobody has written yet.
rm /etc/bird/vyr_oap.conf /tmp/vyr.conf
mkfifo /etc/bird/vyr_oap.conf
"$@" <&- >&- 2>&- &
daemon=$!
tries=0
until [ -s /tmp/vyr.conf ]; do
    tries=$((tries + 1))
    [ $tries -lt 200 ] || fail "without standard descriptors the daemon does not start"
    sleep 0.05
done
for fd in 0 1 2; do
    [ "$(readlink /proc/$daemon/fd/$fd)" = /dev/null ] || fail "descriptor $fd was closed, and is not /dev/null"
done
# shellcheck disable=SC2016  # the inner shell's
timeout 20 sh -c 'cat "$1" >/etc/bird/vyr_oap.conf' sh "$templates/vyr_oap.conf"
wait $daemon || fail "without standard descriptors the daemon ended with $?"

rm /etc/bird/vyr.conf
status=0
"$@" 2>/tmp/errors || status=$?
[ $status = 255 ] || fail "without a template the daemon ended with $status"
