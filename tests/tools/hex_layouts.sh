#!/usr/bin/env bash
# A valid body as xxd, `hexdump -C`, `xxd -i` and syslog lines print it: each
# decodes (--hex, method found by the magic) to the same JSON as the binary
# body. The dumps come from the real tools when they are installed (xxd in
# package xxd, hexdump in bsdextrautils), else from the fixed files in data/.
#   hex_layouts.sh CORVANE DATA_DIR WORK_DIR
set -euo pipefail
corvane=$1 data=$2 work=$3
mkdir -p "$work"
"$corvane" encode -m SetProfileFQDNServers -o "$work/body.bin" "$data/fqdn_servers.json"
expected=$("$corvane" --json decode "$work/body.bin")
[[ $expected == *'"hostName":"sbc2"'* ]] || { echo "the binary body does not decode: $expected"; exit 1; }

dump() {  # name, then the command that prints it from body.bin
  local name=$1; shift
  if command -v "$1" >/dev/null; then
    "$@" "$work/body.bin" > "$work/$name"
  else
    echo "($1 not installed: fixed file data/$name)"
    cp "$data/$name" "$work/$name"
  fi
}
dump fqdn_servers.xxd xxd
dump fqdn_servers.hexdump hexdump -C
dump fqdn_servers.c xxd -i
if command -v xxd >/dev/null; then
  xxd -g1 "$work/body.bin" | sed 's/^/Mar  3 10:12:01 gw voice[812]: /' > "$work/fqdn_servers.log"
else
  cp "$data/fqdn_servers.log" "$work/fqdn_servers.log"
fi

status=0
for f in fqdn_servers.xxd fqdn_servers.hexdump fqdn_servers.c fqdn_servers.log; do
  got=$("$corvane" --json decode --hex "$work/$f") || { echo "$f: exit $?"; status=1; continue; }
  if [[ $got != "$expected" ]]; then
    echo "$f decodes differently:"; echo "  $got"; echo "  expected $expected"; status=1
  else
    echo "$f: ok"
  fi
done
exit $status
