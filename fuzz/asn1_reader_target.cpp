#include "fuzz_targets.h"

#include <stdexcept>

#include "Asn1/Asn1Reader.h"
#include "invariant.h"

namespace korvo_fuzz {

namespace {

// Certificates nest about ten levels deep; past this depth a constructed
// value is read as one value instead of being opened.
constexpr int kMaxDepth = 48;

struct Input {
    const uint8_t* begin;
    const uint8_t* end;
};

// Every slice the reader hands out points into the caller's buffer.
void requireInside(const Input& input, const ByteArray_constSlice& slice)
{
    if (slice.empty())
        return;
    KORVO_FUZZ_REQUIRE(slice.data() >= input.begin && slice.data() <= input.end);
    KORVO_FUZZ_REQUIRE(slice.size() <= static_cast<size_t>(input.end - slice.data()));
}

int firstTagByte(int tag)
{
    return tag > 0xFF ? tag >> 8 : tag;
}

bool isConstructed(int tag)
{
    return (firstTagByte(tag) & 0x20) != 0;
}

void walk(asn1::Asn1Reader reader, const Input& input, int depth)
{
    KORVO_FUZZ_REQUIRE(reader.position() <= reader.end());
    KORVO_FUZZ_REQUIRE(reader.end() <= static_cast<size_t>(input.end - input.begin));
    while (!reader.IsEnd()) {
        const size_t start = reader.position();
        KORVO_FUZZ_REQUIRE(reader.HasData(1));

        // Parsers look ahead for optional elements before reading them.
        const uint8_t first = reader.PeekByte(0);
        reader.PeekTag(0xA0);
        reader.PeekTag(0xA3);
        reader.PeekTag(0x1F20);
        KORVO_FUZZ_REQUIRE(reader.position() == start);

        asn1::Asn1Reader whole = reader;
        asn1::Asn1Reader bytes = reader;
        asn1::Asn1Reader skipped = reader;
        asn1::Asn1Reader opened = reader;

        const int tag = reader.ReadTag();
        KORVO_FUZZ_REQUIRE(firstTagByte(tag) == first);
        KORVO_FUZZ_REQUIRE(whole.PeekTag(tag));

        // The whole encoding, tag and length included.
        const ByteArray_constSlice encoded = whole.GetEncodedValue(tag);
        requireInside(input, encoded);
        KORVO_FUZZ_REQUIRE(encoded.data() == input.begin + start);
        KORVO_FUZZ_REQUIRE(whole.position() == start + encoded.size());
        KORVO_FUZZ_REQUIRE(whole.getSubSlice(start, whole.position()) == encoded);

        // Tag consumed, then the length and the value.
        skipped.CheckTag(tag);
        skipped.SkipElement();
        KORVO_FUZZ_REQUIRE(skipped.position() == whole.position());

        const ByteArray_constSlice value = bytes.GetBytes(tag);
        requireInside(input, value);
        KORVO_FUZZ_REQUIRE(bytes.position() == whole.position());
        KORVO_FUZZ_REQUIRE(value.size() < encoded.size());

        if (isConstructed(tag) && depth < kMaxDepth) {
            asn1::Asn1Reader sub = reader.GetSubReader();
            KORVO_FUZZ_REQUIRE(sub.end() == whole.position());
            KORVO_FUZZ_REQUIRE(sub.remaining() == value.size());
            asn1::Asn1Reader checked = opened.CheckTagAndGetSubReader(tag);
            KORVO_FUZZ_REQUIRE(checked.position() == sub.position() && checked.end() == sub.end());
            walk(sub, input, depth + 1);
        } else {
            const ByteArray_constSlice read = reader.ReadValue();
            KORVO_FUZZ_REQUIRE(read == value);
            KORVO_FUZZ_REQUIRE(read.size() == 0 || read.data() == value.data());
        }
        KORVO_FUZZ_REQUIRE(reader.position() == whole.position());
    }
    reader.CheckEnd();
    KORVO_FUZZ_REQUIRE(!reader.PeekTag(0x30));
}

}  // namespace

bool Asn1ReaderInput(const uint8_t* data, size_t size)
{
    const Input input{data, data + size};
    try {
        walk(asn1::Asn1Reader(ByteArray_constSlice(data, size)), input, 0);
        return true;
    } catch (const asn1::parse_error&) {
        return false;
    } catch (const std::out_of_range&) {
        return false;
    }
}

}  // namespace korvo_fuzz
