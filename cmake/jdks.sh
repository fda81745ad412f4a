#!/bin/sh
# Prints the path and the version of each JDK, 17 or later: first JAVA_HOME, then the JDK of the javac on the PATH, then
# the JDKs in /usr/lib/jvm.
for javac in "${JAVA_HOME:-}/bin/javac" "$(command -v javac)" /usr/lib/jvm/*/bin/javac; do
  home=$(readlink -f "$javac")
  home=${home%/bin/javac}
  if [ -x "$home/bin/javac" ] && [ -f "$home/include/jni.h" ] && [ -f "$home/release" ]; then
    version=$(sed -n 's/^JAVA_VERSION="\([0-9]*\).*/\1/p' "$home/release")
    if [ "${version:-0}" -ge 17 ]; then echo "$home $version"; fi
  fi
done | awk '!seen[$0]++'
