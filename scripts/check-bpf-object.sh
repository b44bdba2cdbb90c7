#!/bin/sh
# check-bpf-object.sh OBJDUMP OBJECT...
#
# Fails when a BPF object uses an instruction or a helper that Linux 5.10
# lacks, so that an object that would be refused on such a device fails the
# build instead (and is deleted):
#   - atomics other than a plain add (5.10 has only BPF_XADD: no fetch
#     variants, no OR/AND/XOR, no exchange, no compare-and-exchange);
#   - helper calls beyond bpf_redirect_peer (id 155), the last helper 5.10
#     has (bpf_loop, id 181, among them);
#   - calls to kernel functions (kfuncs).
# Bounded loops (5.3) and every other instruction of -mcpu=v3 are fine.
#
# Reads the raw instruction bytes that llvm-objdump prints, not its mnemonics,
# which differ between LLVM versions.
set -eu

if [ $# -lt 2 ]; then
  echo "usage: $0 OBJDUMP OBJECT..." >&2
  exit 2
fi
objdump=$1
shift

LAST_HELPER_5_10=155

status=0
for obj in "$@"; do
  "$objdump" -d --no-show-raw-insn "$obj" >/dev/null 2>&1 || {
    echo "check-bpf-object: $objdump cannot read $obj" >&2
    exit 1
  }
  if ! "$objdump" -d "$obj" | awk -v obj="$obj" -v last="$LAST_HELPER_5_10" '
    function hex(s,   i, n) {
      n = 0
      for (i = 1; i <= length(s); i++) n = n * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1
      return n
    }
    /^Disassembly of section/ { section = $4; sub(/:$/, "", section); next }
    # An instruction line: "<offset>:" then its bytes, then the mnemonic.
    $1 ~ /^[0-9a-f]+:$/ && NF >= 9 {
      op = hex($2); regs = hex($3)
      imm = hex($9 $8 $7 $6)
      n = split($0, cols, "\t"); text = cols[n]
      off = $1; sub(/:$/, "", off)
      where = obj " " section " +" off
      # BPF_STX | BPF_ATOMIC with any size; 5.10 takes only the add without fetch.
      if ((op == 219 || op == 195 || op == 211 || op == 203) && !((op == 219 || op == 195) && imm == 0)) {
        printf "%s: atomic operation 0x%02x that Linux 5.10 lacks: %s\n", where, imm, text
        bad = 1
      }
      if (op == 133) {
        src = int(regs / 16)
        if (src == 2) {
          printf "%s: kernel function call, which Linux 5.10 lacks: %s\n", where, text
          bad = 1
        } else if (src == 0 && imm > last) {
          name = (imm == 181) ? " (bpf_loop)" : ""
          printf "%s: helper %d%s is newer than Linux 5.10 (last helper %d): %s\n", where, imm, name, last, text
          bad = 1
        }
      }
    }
    END { exit bad }'; then
    # Removed, so that the next build does not take it as up to date.
    rm -f "$obj"
    status=1
  fi
done
if [ "$status" -ne 0 ]; then
  echo "check-bpf-object: the objects above would not load on Linux 5.10" >&2
fi
exit "$status"
