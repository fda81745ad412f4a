#!/bin/sh
# Reads from the shared object itself that it exports the natives of a Java class and nothing else, needs libc and
# nothing else, and is hardened. With a version of glibc, that this one is enough. With other exports, which a PKCS#11
# module has, it is not the library itself, of which more is promised.
set -u
library=$1
header=$2
glibc=${3:-}
others=${4:-}
objdump=${OBJDUMP:-objdump}
failed=0

expect() { # what, and a command that succeeds if it holds
  what=$1
  shift
  "$@" || { echo "not so: $what"; failed=1; }
}
says() { # a text, and the words of a command whose output must contain it
  text=$1
  shift
  "$@" | grep -q -e "$text"
}
silent() { # a text that must not be in a command's output
  ! says "$@"
}

exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sort)
declared=$({ for name in $others; do echo "$name"; done; grep -o 'Java_[A-Za-z_]*' "$header"; } | sort)
expect "the exports are those declared" [ "$exported" = "$declared" ]
# The loader is part of libc, and so are libdl and libpthread, which older ones have apart.
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
  grep -v -e '^ld-linux' -e '^libdl\.so\.2$' -e '^libpthread\.so\.0$' | tr '\n' ' ')
expect "only libc is needed" [ "$needed" = "libc.so.6 " ]
expect "no search path is built in" silent 'R.*PATH' readelf -d "$library"
expect "relocations are read-only" says GNU_RELRO readelf -lW "$library"
expect "all symbols are bound at once" says BIND_NOW readelf -d "$library"
expect "the code needs no relocation" silent TEXTREL readelf -d "$library"
expect "the stack is not executable" says 'GNU_STACK.* RW ' readelf -lW "$library"
expect "the stack is protected" says __stack_chk_fail nm -D "$library"
if [ ! "$others" ]; then
  expect "they are 49" [ "$(echo "$exported" | wc -l)" = 49 ]
  expect "prints are checked" says '__v.*printf_chk' nm -D "$library"
  expect "nothing runs at exit" silent 'atexit' nm -D "$library"
fi
case $(readelf -h "$library") in
  *X86-64*) landing=endbr64 ;;
  *AArch64*) landing='bti\|paciasp' ;;
  *) landing= ;;
esac
address=0x$(nm -D "$library" | sed -n 's/ T Java_.*//p' | head -n 1)
first=$("$objdump" -d --no-show-raw-insn --start-address="$address" --stop-address=$((address + 4)) "$library" | tail -n 1)
expect "entry points are landing places for indirect calls" says "$landing" echo "$first"
needed=$(readelf -V "$library" | grep -o 'GLIBC_[0-9.]*' | sort -Vu | tail -n 1)
if [ "$glibc" ]; then
  expect "GLIBC_$glibc is enough" [ "$(printf '%s\n' "$needed" "GLIBC_$glibc" | sort -V | tail -n 1)" = "GLIBC_$glibc" ]
fi
[ $failed != 0 ] || echo "$library needs $needed"
exit $failed
