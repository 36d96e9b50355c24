#!/usr/bin/env bash
# Guards libkavo's ABI against the committed baseline abi/libkavo.abi.
#   abi/check.sh BUILD_DIR            fails on an incompatible change
#   abi/check.sh BUILD_DIR --update   writes a new baseline (commit it with the change)
set -uo pipefail
cd "$(dirname "$0")/.."
lib=$1/host/libkavo.so.1
if [ "${2:-}" = "--update" ]; then
  abidw --no-corpus-path --no-show-locs --headers-dir host/include --drop-private-types --out-file abi/libkavo.abi "$lib"
  exit $?
fi
abidiff --headers-dir2 host/include abi/libkavo.abi "$lib" > /tmp/kavo_abidiff.txt
status=$?
cat /tmp/kavo_abidiff.txt
# abidiff's status bits: 1 error, 2 usage, 4 a change, 8 an incompatible change.
if [ $((status & 3)) -ne 0 ]; then echo "abidiff failed ($status)"; exit 1; fi
if [ $((status & 8)) -ne 0 ]; then
  echo "libkavo.so.1 changed incompatibly: keep the ABI, or bump the SONAME and update abi/libkavo.abi on purpose"
  exit 1
fi
[ $((status & 4)) -ne 0 ] && echo "compatible additions; abi/check.sh $1 --update records them"
echo "ABI: compatible with the baseline"
exit 0
