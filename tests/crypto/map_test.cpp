#include "crypto/crypto_errors.h"
#include "crypto/map.h"
#include "hex_util.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Num = std::unique_ptr<map_int, decltype(&map_free)>;

Num num(const std::string& hex)
{
    map_int* a = nullptr;
    EXPECT_EQ(map_new(&a), CRYPTO_OK);
    std::vector<unsigned char> bytes;
    const std::string even = hex.size() % 2 ? "0" + hex : hex;
    for (size_t i = 0; i < even.size(); i += 2) bytes.push_back(static_cast<unsigned char>(std::stoul(even.substr(i, 2), nullptr, 16)));
    EXPECT_EQ(map_from_bytes(a, bytes.data(), bytes.size()), CRYPTO_OK);
    return Num(a, map_free);
}

std::string hexOf(const map_int* a)
{
    std::vector<unsigned char> out(map_num_bytes(a));
    size_t len = out.size();
    EXPECT_EQ(map_to_bytes(a, out.data(), &len), CRYPTO_OK);
    out.resize(len);
    return toHex(out);
}

const std::string kA = "fedcba9876543210fedcba9876543210";
const std::string kB = "0123456789abcdef";
const std::string kM = "7fffffffffffffffffffffffffffffff";  // 2^127 - 1, prime

TEST(MapArithmetic, MatchesIndependentlyComputedValues)
{
    Num a = num(kA), b = num(kB), m = num(kM), r = num("");
    ASSERT_EQ(map_add(r.get(), a.get(), b.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "fedcba9876543210ffffffffffffffff");
    ASSERT_EQ(map_sub(r.get(), a.get(), b.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "fedcba9876543210fdb97530eca86421");
    ASSERT_EQ(map_mul(r.get(), a.get(), b.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "0121fa00ad77d7422358d29092d964322236d88fe5618cf0");
    ASSERT_EQ(map_mod(r.get(), a.get(), b.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "e2e0");
    ASSERT_EQ(map_mod_mul(r.get(), a.get(), b.get(), m.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "2358d29092d96432247acc9140513b74");
    ASSERT_EQ(map_mod_exp(r.get(), a.get(), b.get(), m.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "01ec62d1096e0817dbd3bc0c12039ec9");
    ASSERT_EQ(map_mod_inverse(r.get(), b.get(), m.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "049faf75fbb9752e5a542e11f99750a3");
    ASSERT_EQ(map_gcd(r.get(), a.get(), b.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(r.get()), "0f");
}

TEST(MapArithmetic, ModExpWithEvenModulusAndAliasedResult)
{
    Num a = num(kA), b = num(kB), m = num("fffffffffffffffffffffffffffffffe");
    ASSERT_EQ(map_mod_exp(a.get(), a.get(), b.get(), m.get()), CRYPTO_OK);
    EXPECT_EQ(hexOf(a.get()), "81ec62d1096e0817dbd3bc0c12039ec8");
}

TEST(MapArithmetic, RefusesNegativeResultsZeroModuliAndMissingInverses)
{
    Num a = num(kA), b = num(kB), zero = num(""), r = num("");
    EXPECT_EQ(map_sub(r.get(), b.get(), a.get()), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(map_sub_word(r.get(), zero.get(), 1), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(map_mod(r.get(), a.get(), zero.get()), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(map_div(r.get(), nullptr, a.get(), zero.get()), CRYPTO_ERR_BAD_PARAMETER);
    Num two = num("02"), four = num("04");
    EXPECT_EQ(map_mod_inverse(r.get(), two.get(), four.get()), CRYPTO_ERR_BAD_PARAMETER);
}

TEST(MapBytes, EncodingIsMinimalAndPaddingLeftFills)
{
    Num a = num("0001ff");
    EXPECT_EQ(map_num_bytes(a.get()), 2u);
    EXPECT_EQ(map_num_bits(a.get()), 9u);
    EXPECT_EQ(hexOf(a.get()), "01ff");
    unsigned char padded[4];
    ASSERT_EQ(map_to_bytes_padded(a.get(), padded, sizeof padded), CRYPTO_OK);
    EXPECT_EQ(toHex(padded, sizeof padded), "000001ff");
    EXPECT_EQ(map_to_bytes_padded(a.get(), padded, 1), CRYPTO_ERR_BAD_PARAMETER);
    unsigned char small[1];
    size_t len = sizeof small;
    EXPECT_EQ(map_to_bytes(a.get(), small, &len), CRYPTO_ERR_BAD_PARAMETER);
    EXPECT_EQ(len, 2u);

    Num zero = num("00");
    EXPECT_TRUE(map_is_zero(zero.get()));
    EXPECT_EQ(map_num_bytes(zero.get()), 0u);
}

TEST(MapPrimes, ProbablePrimeTellsPrimesFromCarmichaelAndComposites)
{
    struct Case {
        std::string hex;
        bool prime;
    };
    const Case cases[] = {
        {kM, true},                                     // 2^127 - 1
        {"0231", false},                                // 561, a Carmichael number
        {"1" + std::string(129, '0') + "1", false},     // 2^520 + 1, divisible by 257
        {"1" + std::string(130, 'f'), true},            // 2^521 - 1
    };
    for (const Case& c : cases) {
        Num a = num(c.hex);
        bool prime = !c.prime;
        ASSERT_EQ(map_is_probable_prime(a.get(), &prime), CRYPTO_OK);
        EXPECT_EQ(prime, c.prime) << c.hex;
    }
}

}  // namespace
