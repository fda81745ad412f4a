#!/bin/sh
# Usage: jar.sh JAR_TOOL JAR FOLDER [OTHER_JAR...]. Creates a reproducible jar of a folder, after it has extracted the
# other jars into that folder.
set -eu
tool=$1
jar=$2
cd "$3"
shift 3
for other; do "$tool" --extract --file "$other"; done
set --
if [ -f META-INF/MANIFEST.MF ]; then set -- --manifest META-INF/MANIFEST.MF; fi
if [ "${SOURCE_DATE_EPOCH:-}" ]; then set -- "$@" --date="$(date --utc --date="@$SOURCE_DATE_EPOCH" +%FT%TZ)"; fi
# Given a folder, jar would add the files in the order of the file system, which differs between machines.
find . -type f | LC_ALL=C sort | xargs "$tool" --create --file "$jar" "$@"
