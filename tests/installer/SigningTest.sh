#!/usr/bin/env bash
# The signing of the programs and the packages with a throw-away CA and code-signing certificate
# made here: every file verifies against that CA, the programs inside the packages are the signed
# ones, a copy with one byte changed fails, and without a certificate nothing is changed.
#   SigningTest.sh <folder of the programs>
set -u
. "$(dirname "$0")/lib.sh"
bin=$(cd "$1" && pwd)
sources=$(cd "$here/../../installer" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

echo "== a throw-away CA and code-signing certificate"
openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj "/CN=Tarrow Test CA" \
    -addext basicConstraints=critical,CA:true -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null
openssl req -newkey rsa:2048 -nodes -keyout signer.key -out signer.csr -subj "/CN=Tarrow Test Signer" 2>/dev/null
printf 'basicConstraints=CA:false\nkeyUsage=critical,digitalSignature\nextendedKeyUsage=codeSigning\n' >signer.ext
openssl x509 -req -in signer.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1 -extfile signer.ext \
    -out signer.pem 2>/dev/null
openssl pkcs12 -export -inkey signer.key -in signer.pem -certfile ca.pem -passout pass:test-only -out signer.pfx
check "the certificate is made" test -s signer.pfx

programs=(Tarrow.exe tarrowctl.exe TarrowEvents.dll)
mkdir files && cp "${programs[@]/#/$bin/}" "$bin/Tarrow.tlb" files/
verifies() { osslsigncode verify -CAfile "$work/ca.pem" -in "$1" >/dev/null 2>&1; }

echo "== without a certificate"
before=$(md5sum files/*)
check "it says the files stay unsigned" eval '"$sources/sign" files/Tarrow.exe | grep -q "not signed"'
check "and leaves them as they were" test "$(md5sum files/*)" = "$before"

echo "== signed, then packaged, then the packages signed"
export TARROW_SIGN_PFX=$work/signer.pfx TARROW_SIGN_PASSWORD=test-only
check "the programs are signed" "$sources/sign" "${programs[@]/#/files/}"
check "signing again replaces the signature" "$sources/sign" files/Tarrow.exe
build_package "$sources/Tarrow.wxs" "$work/user.msi" 1.0.0 files
build_package "$sources/TarrowMachine.wxs" "$work/machine.msi" 1.0.0 files
check "the packages are signed" "$sources/sign" user.msi machine.msi
for file in "${programs[@]/#/files/}" user.msi machine.msi; do check "$file verifies" verifies "$file"; done
for msi in user.msi machine.msi; do
    mkdir "x-$msi" && (cd "x-$msi" && msiextract "../$msi" >/dev/null)
    for program in "${programs[@]}"; do
        check "$program inside $msi verifies" verifies "$(find "x-$msi" -name "$program")"
    done
done

echo "== one byte changed"
for file in files/Tarrow.exe files/TarrowEvents.dll machine.msi; do
    cp "$file" changed
    size=$(stat -c %s changed)
    printf '\xA5' | dd of=changed bs=1 seek=$((size / 3)) conv=notrunc status=none
    check "a changed copy of $file fails" eval '! verifies changed'
done

summary
