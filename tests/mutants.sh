#!/usr/bin/env bash
# Applies each fault of mutants.txt to a copy of the project and prints the first test that detects it: a native test
# for a fault in the library, a test on the first JDK for one in the classes. The exit status is the number of faults
# that no test detects, that cannot be applied, or that do not compile. If a fault cannot be applied, correct its row.
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
    detected_by="CANNOT BE APPLIED"
  elif ! cmake --build "$copy/build" --parallel >"$copy/log" 2>&1; then
    detected_by="DOES NOT COMPILE"
  else # ctest, so that a test that crashes does not stop the other native tests
    ctest --test-dir "$copy/build" "${tests[@]}" --parallel "$(nproc)" --timeout 300 >"$copy/log" 2>&1 </dev/null ||
      true
    detected_by=$(sed -n 's/.*Test *#\([0-9]*\): \([^ ]*\) .*\*\*\*.*/\1 \2/p' "$copy/log" | sort -n | sed 's/.* //;q')
  fi
  case ${detected_by:=NO TEST} in CANNOT* | DOES* | NO\ TEST) survivors=$((survivors + 1)) ;; esac
  printf '%-63s %s\n' "$what" "$detected_by"
  cp "$root/$folder/$file" "$copy/$folder/$file"
done <"$root/tests/mutants.txt"
echo "$survivors faults not detected"
exit "$survivors"
