#!/usr/bin/env bash
# Makes the test certificates of the test suite and the fuzz seed corpus:
#   make-test-certs.sh <outdir>
# Into <outdir> it writes a root CA, an intermediate CA signed by the root,
# and user certificates signed by the intermediate, each as raw DER (*.der),
# with the private keys as PEM PKCS#8 (*.key.pem). index.txt lists every
# certificate and what it exercises. store/ holds a copy of some of them laid
# out as the token's three certificate folders, under the file names the
# token expects, with the user keys in keys/ as the reference helper finds
# them. Every name in them is invented.
#
# Running it again with the same script does nothing (index.txt records the
# script's digest); a changed script makes everything anew. Validity dates
# and serial numbers are fixed; keys and signatures are new on each making.
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 <outdir>" >&2; exit 2; }
outdir=$1
openssl=${OPENSSL:-openssl}
self=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/$(basename "${BASH_SOURCE[0]}")
digest=$(sha256sum "$self" | cut -d' ' -f1)
stamp="# made by make-test-certs.sh $digest"

if [ -f "$outdir/index.txt" ] && [ "$(head -n1 "$outdir/index.txt")" = "$stamp" ]; then
  touch "$outdir/index.txt"
  exit 0
fi

mkdir -p "$outdir"
work=$(mktemp -d "${TMPDIR:-/tmp}/korvo-testcerts.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir ca ca/new out
: > ca/index.txt

cat > ca.cnf <<'CNF'
[ca]
default_ca = korvo_ca

[korvo_ca]
dir = .
database = ca/index.txt
new_certs_dir = ca/new
serial = ca/serial
default_md = sha256
policy = korvo_names
unique_subject = no
email_in_dn = no
copy_extensions = none
string_mask = utf8only
utf8 = yes

[korvo_names]
commonName = supplied

[req]
distinguished_name = req_dn
string_mask = utf8only
utf8 = yes
prompt = no

[req_dn]
CN = unused

[root_ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash

[intermediate_ca]
basicConstraints = critical,CA:TRUE,pathlen:0
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid

[user_base]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature,nonRepudiation,keyEncipherment
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid

[user_no_policy]
.include_section = user_base

[user_person]
.include_section = user_base
certificatePolicies = @person_policy

[person_policy]
policyIdentifier = 1.2.208.169.1.1.1.1
CPS.1 = "http://ca.invented.example/cps"
userNotice.1 = @person_notice

[person_notice]
explicitText = "Invented certificate for tests"

[user_employee]
.include_section = user_base
certificatePolicies = 1.2.208.169.1.1.1.2

[user_employee_subarc]
.include_section = user_base
certificatePolicies = 1.2.208.169.1.1.1.2.4.7

[user_company]
.include_section = user_base
certificatePolicies = 1.2.208.169.1.1.1.3

[user_email]
.include_section = user_base
certificatePolicies = 1.2.208.169.1.1.1.1
subjectAltName = email:alice.invented@invented.example

[user_two_emails]
.include_section = user_base
certificatePolicies = 1.2.208.169.1.1.1.1
subjectAltName = email:alice.invented@invented.example,email:alice@invented.example
CNF
# .include_section is not understood everywhere; expand it here instead.
awk '
  /^\[/ { section = $0 }
  /^\.include_section/ { n = lines["[" $3 "]"]; for (i = 1; i <= n; i++) print body["[" $3 "]", i]; next }
  { print; if (section != "" && $0 !~ /^\[/ && $0 != "") body[section, ++lines[section]] = $0 }
' ca.cnf > ca.expanded.cnf
mv ca.expanded.cnf ca.cnf

index=()
note() { index+=("$1	$2"); }

rsa_key() { "$openssl" genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "out/$1.key.pem" 2>/dev/null; }

# sign NAME SERIAL EXTENSIONS SUBJECT ISSUER [openssl ca options...]
# ISSUER is "self" for the root, else the name of the issuing CA.
sign() {
  local name=$1 serial=$2 ext=$3 subject=$4 issuer=$5
  shift 5
  echo "$serial" > ca/serial
  "$openssl" req -new -config ca.cnf -key "out/$name.key.pem" -out "$name.csr" 2>/dev/null
  local signer=()
  if [ "$issuer" = self ]; then
    signer=(-selfsign -keyfile "out/$name.key.pem")
  else
    signer=(-cert "$issuer.pem" -keyfile "out/$issuer.key.pem")
  fi
  "$openssl" ca -batch -notext -config ca.cnf -preserveDN -utf8 -subj "$subject" \
    -extensions "$ext" "${signer[@]}" -in "$name.csr" -out "$name.pem" "$@" 2>ca.log ||
    { cat ca.log >&2; exit 1; }
  "$openssl" x509 -in "$name.pem" -outform DER -out "out/$name.der"
}

# Ordinary dates, both within the UTCTime years.
dates=(-startdate 20240101000000Z -enddate 20440101000000Z)

rsa_key root-ca
sign root-ca 01 root_ca "/C=XX/O=Korvo Invented Test Data/CN=Korvo Test Root CA" self \
  -startdate 20200101000000Z -enddate 20491231235959Z
note root-ca.der "self-signed root CA (RSA 2048), CA basic constraints, no policy"

rsa_key intermediate-ca
sign intermediate-ca 02 intermediate_ca "/C=XX/O=Korvo Invented Test Data/CN=Korvo Test Intermediate CA" root-ca \
  -startdate 20200101000000Z -enddate 20491231235959Z
note intermediate-ca.der "intermediate CA signed by the root, authority key identifier"

user() {  # user NAME SERIAL EXTENSIONS SUBJECT DESCRIPTION [openssl ca options...]
  local name=$1 serial=$2 ext=$3 subject=$4 what=$5
  shift 5
  [ -f "out/$name.key.pem" ] || rsa_key "$name"
  sign "$name" "$serial" "$ext" "$subject" intermediate-ca "$@"
  note "$name.der" "$what"
}

user user-person 1001 user_person "/C=XX/O=Invented Org/CN=Alice Invented" \
  "OCES person policy 1.2.208.169.1.1.1.1 with CPS and user-notice qualifiers" "${dates[@]}"
user user-employee 1002 user_employee "/C=XX/O=Invented Org/OU=Invented Unit/CN=Søren Invented" \
  "OCES employee policy 1.2.208.169.1.1.1.2; UTF-8 common name; OU" "${dates[@]}"
user user-employee-subarc 1003 user_employee_subarc "/C=XX/O=Invented Org/CN=Dora Invented" \
  "OCES employee policy given as a sub-arc (1.2.208.169.1.1.1.2.4.7)" "${dates[@]}"
user user-company 1004 user_company "/C=XX/O=Invented Company/CN=Invented Company Service" \
  "OCES company policy 1.2.208.169.1.1.1.3" "${dates[@]}"
user user-san-email 1005 user_email "/C=XX/O=Invented Org/CN=Alice Invented" \
  "person policy; subject alternative name with one rfc822Name alice.invented@invented.example" "${dates[@]}"
user user-san-two-emails 1006 user_two_emails "/C=XX/O=Invented Org/CN=Alice Invented" \
  "person policy; subject alternative name with two rfc822Names (an OCES parse must refuse it)" "${dates[@]}"
user user-multivalued-rdn 1007 user_person "/C=XX/O=Invented Org/CN=Alice Invented+serialNumber=PID:9208-2002-2-000000000001" \
  "person policy; last RDN multi-valued: CN and serialNumber in one SET" "${dates[@]}"
user user-serialnumber-rdn 1008 user_employee "/C=XX/O=Invented Org/serialNumber=CVR:00000000-UID:00000002/CN=Bob Invented" \
  "employee policy; serialNumber (2.5.4.5) RDN of its own" "${dates[@]}"
user user-generalizedtime 1009 user_person "/C=XX/O=Invented Org/CN=Erik Invented" \
  "person policy; notAfter 2060-01-01 encoded as GeneralizedTime" -startdate 20240101000000Z -enddate 20600101000000Z
user user-utctime-window 100A user_person "/C=XX/O=Invented Org/CN=Frida Invented" \
  "person policy; UTCTime century window: notBefore 500101000000Z (1950), notAfter 491231235959Z (2049)" \
  -startdate 19500101000000Z -enddate 20491231235959Z
user user-no-policy 100B user_no_policy "/C=XX/O=Invented Org/CN=Gustav Invented" \
  "no certificate policies extension (no OCES flag set)" "${dates[@]}"

"$openssl" genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:2048 -out dsa.param 2>/dev/null
"$openssl" genpkey -paramfile dsa.param -out out/user-dsa.key.pem 2>/dev/null
user user-dsa 100C user_person "/C=XX/O=Invented Org/CN=Hans Invented" \
  "person policy with a DSA key: an X.509 certificate but no OCES certificate (needs RSA)" "${dates[@]}"

# The token's certificate folders: user files are <user>_<sha-256>.cer, CA
# files <sha-256>.cer, all raw DER.
sha() { sha256sum "$1" | cut -d' ' -f1; }
mkdir -p out/store/root_certificates out/store/intermediate_certificates out/store/user_certificates out/store/keys
cp out/root-ca.der "out/store/root_certificates/$(sha out/root-ca.der).cer"
cp out/intermediate-ca.der "out/store/intermediate_certificates/$(sha out/intermediate-ca.der).cer"
for pair in alice:user-person alice:user-san-email bob:user-serialnumber-rdn carol:user-company; do
  u=${pair%%:*} f=out/${pair#*:}.der
  cp "$f" "out/store/user_certificates/${u}_$(sha "$f").cer"
  # The reference helper finds a user's key by the certificate's digest.
  cp "out/${pair#*:}.key.pem" "out/store/keys/$(sha "$f").pem"
done
note store/ "root_certificates, intermediate_certificates, user_certificates, keys: the root, the intermediate and user-person + user-san-email (alice), user-serialnumber-rdn (bob), user-company (carol) under the token's file names, with the user keys as the reference helper looks them up (keys/<sha-256>.pem)"

{
  echo "$stamp"
  echo "# file	what it exercises"
  printf '%s\n' "${index[@]}"
} > out/index.txt

# Replace the previous contents of outdir; index.txt last, so an interrupted
# run is made again next time.
rm -f "$outdir/index.txt"
rm -rf "$outdir/store"
rm -f "$outdir"/*.der "$outdir"/*.key.pem
mv out/store "$outdir/"
for f in out/*.der out/*.key.pem; do mv "$f" "$outdir/"; done
mv out/index.txt "$outdir/index.txt"
