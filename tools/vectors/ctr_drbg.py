#!/usr/bin/python3
# Known answers for the token's random bit generator: CTR_DRBG with AES-256
# and the derivation function (NIST SP 800-90A, 10.2.1 and 10.3.2), no
# prediction resistance, written out step by step as the standard gives it,
# over the independent AES of Debian's python3-pycryptodome. Each case:
# instantiate(entropy, nonce, personalisation), reseed(entropy, additional
# input), generate(64 bytes) twice; the second output is the answer.
#
#   /usr/bin/python3 tools/vectors/ctr_drbg.py > tests/crypto/data/ctr_drbg_aes256.txt
import hashlib
from Cryptodome.Cipher import AES

KEYLEN, OUTLEN = 32, 16
SEEDLEN = KEYLEN + OUTLEN


def enc(key, block):
    return AES.new(key, AES.MODE_ECB).encrypt(block)


def bcc(key, data):
    chain = bytes(OUTLEN)
    for i in range(0, len(data), OUTLEN):
        chain = enc(key, bytes(a ^ b for a, b in zip(chain, data[i:i + OUTLEN])))
    return chain


def df(inp, nbytes):
    s = len(inp).to_bytes(4, 'big') + nbytes.to_bytes(4, 'big') + inp + b'\x80'
    s += bytes(-len(s) % OUTLEN)
    key = bytes(range(KEYLEN))
    temp = b''
    i = 0
    while len(temp) < SEEDLEN:
        temp += bcc(key, i.to_bytes(4, 'big') + bytes(OUTLEN - 4) + s)
        i += 1
    key, x = temp[:KEYLEN], temp[KEYLEN:SEEDLEN]
    out = b''
    while len(out) < nbytes:
        x = enc(key, x)
        out += x
    return out[:nbytes]


def increment(v):
    return ((int.from_bytes(v, 'big') + 1) % (1 << 128)).to_bytes(OUTLEN, 'big')


class Drbg:
    def __init__(self, entropy, nonce, pers):
        self.key, self.v = bytes(KEYLEN), bytes(OUTLEN)
        self.update(df(entropy + nonce + pers, SEEDLEN))

    def update(self, provided):
        temp = b''
        while len(temp) < SEEDLEN:
            self.v = increment(self.v)
            temp += enc(self.key, self.v)
        temp = bytes(a ^ b for a, b in zip(temp[:SEEDLEN], provided))
        self.key, self.v = temp[:KEYLEN], temp[KEYLEN:]

    def reseed(self, entropy, additional):
        self.update(df(entropy + additional, SEEDLEN))

    def generate(self, n):
        out = b''
        while len(out) < n:
            self.v = increment(self.v)
            out += enc(self.key, self.v)
        self.update(bytes(SEEDLEN))
        return out[:n]


def stream(label, n):
    # Deterministic inputs, so the file can be made again and checked.
    out = b''
    counter = 0
    while len(out) < n:
        out += hashlib.sha256(f'{label}/{counter}'.encode()).digest()
        counter += 1
    return out[:n]


print('# CTR_DRBG AES-256 with derivation function, no prediction resistance.')
print('# Made by tools/vectors/ctr_drbg.py; fields per case, in order:')
print('# entropy nonce personalisation reseed-entropy reseed-additional-input second-64-byte-output')
for case, (perslen, addlen) in enumerate([(0, 0), (32, 0), (0, 32), (32, 32), (64, 5), (1, 100)]):
    e, n = stream(f'e{case}', 32), stream(f'n{case}', 16)
    p, e2, a = stream(f'p{case}', perslen), stream(f'r{case}', 32), stream(f'a{case}', addlen)
    d = Drbg(e, n, p)
    d.reseed(e2, a)
    d.generate(64)
    print(' '.join(x.hex() or '-' for x in (e, n, p, e2, a, d.generate(64))))
