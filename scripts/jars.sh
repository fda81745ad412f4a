# shellcheck shell=bash
# Sourced: makes the jars, the same bytes each time from the same sources, libraries and JDK.

version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
: "${version:?is not in CMakeLists.txt}"
# The commit's time; where git does not tell it, that of the list of changes.
if [ ! "${SOURCE_DATE_EPOCH:-}" ]; then
  SOURCE_DATE_EPOCH=$({ [ -e "$root/.git" ] && git -C "$root" log -1 --format=%ct 2>/dev/null; } ||
    stat -c %Y "$root/CHANGELOG.md")
fi
export SOURCE_DATE_EPOCH

# Makes a jar of a folder's files; a jar of the folder itself would keep the order in which the disk has them.
jar_of() { # the folder, the jar, and options
  local folder=$1 jar=$2 files
  shift 2
  mapfile -t files < <(cd "$folder" && find . -type f -printf '%P\n' | LC_ALL=C sort)
  (cd "$folder" && "$JAVA_HOME/bin/jar" --create --file "$jar" "$@" \
    --date="$(date --utc --date="@$SOURCE_DATE_EPOCH" +%Y-%m-%dT%H:%M:%SZ)" "${files[@]}")
}

# Compiles the classes and puts in a library for each system.
make_jar() { # the jar, a folder to work in, and as often as wanted an architecture and its library
  local jar=$1 work=$2 classes=$2/classes sources resources
  shift 2
  rm -rf "$classes"
  mapfile -t sources < <(find "$root/java" -name '*.java' | LC_ALL=C sort)
  "$JAVA_HOME/bin/javac" --release 17 -Xlint:all -Werror -encoding UTF-8 -d "$classes" "${sources[@]}"
  cp -r "$root/java/META-INF" "$classes"
  while [ $# -gt 0 ]; do
    resources=$classes/com/calvenhor/vork/utils/linux-$1
    mkdir "$resources"
    cp "$2" "$resources/libsmartcard.so"
    chmod 644 "$resources/libsmartcard.so"
    shift 2
  done
  printf 'Implementation-Title: libsmartcard\nImplementation-Version: %s\n' "$version" >"$work/manifest"
  jar_of "$classes" "$jar" --manifest "$work/manifest" --module-version "$version"
}
