# shellcheck shell=bash
# A new key for scripts: make_pkcs12 FOLDER PASS-PHRASE makes FOLDER/key.p12, and of what it holds
# FOLDER/key.pem and FOLDER/cert.pem.

make_pkcs12() {
  local folder=$1 phrase=$2
  openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=demo -keyout "$folder/key.pem" \
    -out "$folder/cert.pem" 2>/dev/null
  openssl pkcs12 -export -inkey "$folder/key.pem" -in "$folder/cert.pem" \
    -passout "pass:$phrase" -out "$folder/key.p12"
}
