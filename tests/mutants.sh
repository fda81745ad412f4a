#!/usr/bin/env bash
# Applies each fault of mutants.txt to a copy of the project and prints the first test that notices it: a native test
# for the library, a test on the first JDK for the classes. The exit status is the number of faults that no test
# notices. If a fault can no longer be applied, correct its row.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
copy=$root/build/mutants
read -r jdk _ < <(sh "$root/cmake/jdks.sh")

mkdir -p "$copy"
cp -r "$root"/{CMakeLists.txt,cmake,examples,java,smartcard,testing,tests} "$copy"
cmake -S "$copy" -B "$copy/build" -DCMAKE_BUILD_TYPE=Debug -DSMARTCARD_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$copy/build" --parallel >/dev/null

survivors=0
while IFS=$'\t' read -r file change what; do
  case $file in
    '' | '#'*) continue ;;
    *.java) folder=java/com/calvenhor/vork/utils tests=(--tests-regex "^java\.${jdk##*/}\.(KeyStore|Loader)") ;;
    *) folder=smartcard tests=(--exclude-regex 'java|valgrind|binary') ;;
  esac
  sed -i "$change" "$copy/$folder/$file"
  if cmp --silent "$root/$folder/$file" "$copy/$folder/$file"; then
    noticed="CANNOT BE APPLIED"
  elif ! cmake --build "$copy/build" --parallel >"$copy/log" 2>&1; then
    noticed="DOES NOT COMPILE"
  else # ctest runs each native test in its own process
    ctest --test-dir "$copy/build" "${tests[@]}" --parallel "$(nproc)" --timeout 300 >"$copy/log" 2>&1 </dev/null ||
      true
    noticed=$(sed -n 's/.*Test *#\([0-9]*\): \([^ ]*\) .*\*\*\*.*/\1 \2/p' "$copy/log" | sort -n | sed 's/.* //;q')
  fi
  case ${noticed:=NO TEST} in CANNOT* | DOES* | NO\ TEST) survivors=$((survivors + 1)) ;; esac
  printf '%-60s %s\n' "$what" "$noticed"
  cp "$root/$folder/$file" "$copy/$folder/$file"
done <"$root/tests/mutants.txt"
echo "$survivors not noticed"
exit "$survivors"
