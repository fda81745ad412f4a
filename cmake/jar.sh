#!/bin/sh
# Makes a jar of a folder's files, the same bytes each time: jar.sh JAR_TOOL JAR FOLDER [OTHER_JAR...]. What is in the
# other jars comes into the folder first.
set -eu
tool=$1
jar=$2
cd "$3"
shift 3
for other; do "$tool" --extract --file "$other"; done
set --
if [ -f META-INF/MANIFEST.MF ]; then set -- --manifest META-INF/MANIFEST.MF; fi
if [ "${SOURCE_DATE_EPOCH:-}" ]; then set -- "$@" --date="$(date --utc --date="@$SOURCE_DATE_EPOCH" +%FT%TZ)"; fi
# Of the folder itself, jar would keep the order in which the disk has its files.
find . -type f | LC_ALL=C sort | xargs "$tool" --create --file "$jar" "$@"
