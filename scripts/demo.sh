#!/usr/bin/env bash
# Builds the library and resolves a few names through it against a real DNS
# server (dnsmasq) that answers from its own records. Everything runs in a
# private network namespace with only loopback, so nothing leaves the machine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target vek_dns_demo

exec unshare --mount --net --propagation private -- bash -euo pipefail -c '
  ip link set lo up 2>/dev/null || true
  mount -t tmpfs demo /var
  mount -t tmpfs demo /dev/shm
  printf "nameserver 127.0.0.1\nsearch corp.test\n" > /var/resolv.conf
  mount --bind /var/resolv.conf /etc/resolv.conf
  dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts \
    --listen-address=127.0.0.1 --bind-interfaces --port=53 --pid-file= --user=root \
    --host-record=www.demo.test,192.0.2.10,2001:db8::10 \
    --host-record=mail.demo.test,192.0.2.25 \
    --host-record=intranet.corp.test,198.51.100.7 \
    --cname=web.demo.test,www.demo.test &
  dns=$!
  trap "kill $dns 2>/dev/null || true" EXIT
  for _ in $(seq 50); do [ -n "$(ss -lun 2>/dev/null | grep 127.0.0.1:53)" ] && break; sleep 0.1; done
  echo "== vek_dns demo: blocking resolves through dnsmasq on 127.0.0.1 =="
  ./build/default/tools/vek_dns_demo -b www.demo.test web.demo.test mail.demo.test intranet || true
  ./build/default/tools/vek_dns_demo -6 www.demo.test || true
  ./build/default/tools/vek_dns_demo -4 unknown.demo.test || true
'
