#!/usr/bin/env bash
# Generates, certifies, imports, uses, renames and deletes keys on a token with the JDK's tools. The module must have
# exactly one token. SMARTCARD_PIN holds its PIN, JAVA_HOME the path of the JDK.
set -euo pipefail
module=${1?usage: keystore.sh MODULE JAR} jar=${2?usage: keystore.sh MODULE JAR}
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

# Prints the title of a step and runs it. Its output, which includes the library's traces, is shown only on failure.
step() { # title, command...
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
step "Create a certificate request" keytool -certreq -alias signer -file signer.csr "${token[@]}"
step "Create a CA in a file" keytool -genkeypair -keyalg RSA -keysize 2048 -dname 'CN=Example CA' -ext bc:c "${ca[@]}"
step "Issue the certificate with the CA" keytool -gencert -infile signer.csr -outfile signer.crt "${ca[@]}"
step "Export the CA's certificate" keytool -exportcert -file ca.crt "${ca[@]}"
step "Import the CA's certificate" keytool -importcert -alias ca -file ca.crt -noprompt "${token[@]}"
step "Import the issued certificate" keytool -importcert -alias signer -file signer.crt -keypass ignored "${token[@]}"
entries
printf 'a document' >document
step "Create a jar" jar --create --file document.jar document
step "Sign the jar" jarsigner "${token[@]}" document.jar signer
step "Verify the jar without the token" jarsigner -verify "${english[@]}" document.jar
grep '^jar verified' output
step "Rename the entry" keytool -changealias -alias signer -destalias contracts -keypass ignored "${token[@]}"
step "Create an identity in a file" keytool -genkeypair -alias identity -keyalg RSA -keysize 2048 -dname 'CN=Identity' \
  -keystore identity.p12 -storepass changeit
step "Import the identity" keytool -importkeystore -srckeystore identity.p12 -srcstorepass changeit -srcalias identity \
  -destkeypass ignored -destkeystore NONE -deststoretype Smartcard -deststorepass:env SMARTCARD_PIN "${provider[@]}"
entries
for alias in contracts identity ca; do
  step "Delete the entry $alias" keytool -delete -alias "$alias" "${token[@]}"
done
entries | tee left
grep -q '^Your keystore contains 0 entries' left
