#!/bin/sh
# with_private_journal.sh COMMAND...: runs COMMAND beside a journald of its own, in a private
# mount namespace (fresh /run/systemd and /run/log), so that the real-journal test runs on
# machines and containers where no journal does, without touching the machine's own.
# Exits 77 (skipped) when the namespace or journald cannot be had.
if [ "$1" != "--inside" ]; then
  [ "$(id -u)" = 0 ] && [ -x /lib/systemd/systemd-journald ] || exit 77
  exec unshare -m --propagation private "$0" --inside "$@" || exit 77
fi
shift
mount -t tmpfs tmpfs /run/systemd 2>/dev/null || exit 77
mkdir -p /run/log && mount -t tmpfs tmpfs /run/log || exit 77
/lib/systemd/systemd-journald >/dev/null 2>&1 &
journald=$!
tries=0
until [ -S /run/systemd/journal/socket ]; do
  tries=$((tries + 1))
  [ $tries -le 100 ] || { kill $journald; exit 77; }
  sleep 0.1
done
"$@"
status=$?
kill $journald
wait $journald 2>/dev/null
exit $status
