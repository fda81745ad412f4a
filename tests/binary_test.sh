#!/bin/sh
# Usage: binary_test.sh LIBRARY JNI_HEADER [GLIBC_VERSION] [OTHER_EXPORTS]. Checks that a shared object exports only the
# native methods that the header declares and OTHER_EXPORTS, needs only libc (no later than GLIBC_VERSION, if that is
# given), and is hardened. Without OTHER_EXPORTS it is libsmartcard, for which there are more checks.
set -u
library=$1
header=$2
glibc=${3:-}
others=${4:-}
objdump=${OBJDUMP:-objdump}
failed=0

expect() { # a claim, and the command that checks it
  claim=$1
  shift
  "$@" || { echo "FAILED: $claim"; failed=1; }
}
contains() { # a text, and the command whose output must contain it
  text=$1
  shift
  "$@" | grep -q -e "$text"
}
lacks() { # a text, and the command whose output must not contain it
  ! contains "$@"
}

exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sort)
declared=$({ for name in $others; do echo "$name"; done; grep -o 'Java_[A-Za-z_]*' "$header"; } | sort)
expect "the exports are those declared" [ "$exported" = "$declared" ]
# The loader belongs to glibc. Before version 2.34, libdl and libpthread were separate libraries of it.
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
  grep -v -e '^ld-linux' -e '^libdl\.so\.2$' -e '^libpthread\.so\.0$' | tr '\n' ' ')
expect "only libc is needed" [ "$needed" = "libc.so.6 " ]
expect "no search path is built in" lacks 'R.*PATH' readelf -d "$library"
expect "relocations are read-only" contains GNU_RELRO readelf -lW "$library"
expect "all symbols are bound at once" contains BIND_NOW readelf -d "$library"
expect "the code needs no relocation" lacks TEXTREL readelf -d "$library"
expect "the stack is not executable" contains 'GNU_STACK.* RW ' readelf -lW "$library"
expect "the stack is protected" contains __stack_chk_fail nm -D "$library"
if [ ! "$others" ]; then
  expect "there are 49 exports" [ "$(echo "$exported" | wc -l)" = 49 ]
  expect "printf calls are fortified" contains '__v.*printf_chk' nm -D "$library"
  expect "no exit handler is registered" lacks 'atexit' nm -D "$library"
fi
case $(readelf -h "$library") in
  *X86-64*) landing=endbr64 ;;
  *AArch64*) landing='bti\|paciasp' ;;
  *) landing= ;;
esac
address=0x$(nm -D "$library" | sed -n 's/ T Java_.*//p' | head -n 1)
first=$("$objdump" -d --no-show-raw-insn --start-address="$address" --stop-address=$((address + 4)) "$library" |
  tail -n 1)
expect "entry points begin with a landing pad (CET, BTI)" contains "$landing" echo "$first"
needed=$(readelf -V "$library" | grep -o 'GLIBC_[0-9.]*' | sort -Vu | tail -n 1)
if [ "$glibc" ]; then
  expect "GLIBC_$glibc is enough" [ "$(printf '%s\n' "$needed" "GLIBC_$glibc" | sort -V | tail -n 1)" = "GLIBC_$glibc" ]
fi
[ $failed != 0 ] || echo "$library needs $needed"
exit $failed
