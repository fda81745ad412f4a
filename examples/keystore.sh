#!/usr/bin/env bash
# The life of a key on a token, with keytool and jarsigner alone: keystore.sh MODULE JAR. The token is the module's only
# one, SMARTCARD_PIN holds its PIN, and JAVA_HOME names the JDK.
set -euo pipefail
module=$1 jar=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

english=(-J-Duser.language=en -J-Duser.country=US)
provider=(-addprovider Smartcard -providerarg "$module" -J-cp "-J$jar" "${english[@]}")
if "$JAVA_HOME/bin/java" --enable-native-access=ALL-UNNAMED -version 2>/dev/null; then
  provider+=(-J--enable-native-access=ALL-UNNAMED)
fi
token=(-keystore NONE -storetype Smartcard -storepass:env SMARTCARD_PIN "${provider[@]}")
ca=(-alias ca -keystore ca.p12 -storepass changeit)

# Names the step. On standard output the library's traces are between keytool's lines: they are shown on failure.
step() { # what it does, and the command
  printf '\n==> %s: %s\n' "$1" "$2 $3"
  shift
  "$JAVA_HOME/bin/$1" "${@:2}" >output || { cat output; exit 1; }
}

entries() {
  step "List the entries" keytool -list "${token[@]}"
  sed -n '/^Your keystore/,$ p' output
}

step "Generate a key on the token" keytool -genkeypair -alias signer -keyalg RSA -keysize 2048 -dname 'CN=Signer' \
  -keypass ignored -providerName Smartcard "${token[@]}"
step "Make a request for a certificate" keytool -certreq -alias signer -file signer.csr "${token[@]}"
step "Make a CA, in a file" keytool -genkeypair -keyalg RSA -keysize 2048 -dname 'CN=Example CA' -ext bc:c "${ca[@]}"
step "Let the CA answer the request" keytool -gencert -infile signer.csr -outfile signer.crt "${ca[@]}"
step "Export its certificate" keytool -exportcert -file ca.crt "${ca[@]}"
step "Import the CA's certificate" keytool -importcert -alias ca -file ca.crt -noprompt "${token[@]}"
step "Import its reply" keytool -importcert -alias signer -file signer.crt -keypass ignored "${token[@]}"
entries
printf 'a document' >document
step "Make a jar" jar --create --file document.jar document
step "Sign the jar" jarsigner "${token[@]}" document.jar signer
step "Verify it, with Java alone" jarsigner -verify "${english[@]}" document.jar
grep '^jar verified' output
step "Rename the key's entry" keytool -changealias -alias signer -destalias contracts -keypass ignored "${token[@]}"
step "Make an identity, in a file" keytool -genkeypair -alias identity -keyalg RSA -keysize 2048 -dname 'CN=Identity' \
  -keystore identity.p12 -storepass changeit
step "Import it" keytool -importkeystore -srckeystore identity.p12 -srcstorepass changeit -srcalias identity \
  -destkeypass ignored -destkeystore NONE -deststoretype Smartcard -deststorepass:env SMARTCARD_PIN "${provider[@]}"
entries
for alias in contracts identity ca; do
  step "Delete the entry of $alias" keytool -delete -alias "$alias" "${token[@]}"
done
entries | tee left
grep -q '^Your keystore contains 0 entries' left
