#include <hv/hvarray.hpp>

#include <tests/support/errorof.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::uint8_t> bytesOf(const hvArray* a) {
    HvArrayPtr s(hvSerialize(a));
    EXPECT_EQ(hvGetClassID(s.get()), hvUINT8_CLASS);
    EXPECT_EQ(hvGetNumberOfDimensions(s.get()), 2u);
    EXPECT_EQ(hvGetM(s.get()), 1u);
    const auto* p = static_cast<const std::uint8_t*>(hvGetReadOnlyData(s.get()));
    return std::vector<std::uint8_t>(p, p + hvGetN(s.get()));
}

HvArrayPtr roundTrip(const hvArray* a) {
    std::vector<std::uint8_t> b = bytesOf(a);
    return HvArrayPtr(hvDeserialize(b.data(), b.size()));
}

// An opaque class saved as its integer value and loaded back into a new giblet.
const hvOpaqueClass* boxClass = nullptr;
int boxSaves = 0;
int boxLoads = 0;

int& boxed(const hvArray* a) {
    return *static_cast<int*>(hvGetOpaqueGiblet(a));
}

const hvOpaqueClass* registerBox() {
    if (boxClass == nullptr) {
        hvOpaqueClassOps ops;
        ops.destroy = [](void* giblet) { delete static_cast<int*>(giblet); };
        ops.share = [](void* giblet) -> void* { return new int(*static_cast<int*>(giblet)); };
        ops.save = [](const hvArray* a) {
            ++boxSaves;
            return hvCreateNumericScalar(hvINT32_CLASS, boxed(a));
        };
        ops.load = [](const hvOpaqueClass* cls, const hvArray* saved) -> hvArray* {
            ++boxLoads;
            if (hvGetClassID(saved) != hvINT32_CLASS) {
                return nullptr;
            }
            return hvCreateOpaqueGiblet(cls, new int(static_cast<int>(hvGetScalar(saved))));
        };
        ops.equal = [](const hvArray* a, const hvArray* b) { return boxed(a) == boxed(b); };
        boxClass = hvSubclassOpaqueArray("test.Box", &ops);
    }
    return boxClass;
}

// A numeric array whose bytes all differ from their neighbours, so that every byte of every
// element is checked (the values chosen hold no NaN, which would not compare equal).
HvArrayPtr filled(hvClassID cls, std::size_t m, std::size_t n) {
    HvArrayPtr a(hvCreateNumericMatrix(cls, m, n));
    auto* p = static_cast<std::uint8_t*>(hvGetData(a.get()));
    for (std::size_t i = 0; i < m * n * hvGetElementSize(a.get()); ++i) {
        p[i] = static_cast<std::uint8_t>(i * 37 + 1);
    }
    return a;
}

// A value holding every class, nested.
HvArrayPtr everything() {
    const char* fields[] = {"numbers", "text", "nested", "empty"};
    const std::size_t dims3[] = {2, 2, 3};
    HvArrayPtr s(hvCreateStructMatrix(1, 2, 4, fields));
    HvArrayPtr numbers(hvCreateCellMatrix(1, 11));
    for (int c = hvDOUBLE_CLASS; c <= hvUINT64_CLASS; ++c) { // 2 by 1 up to 2 by 10
        hvSetCell(numbers.get(), c - hvDOUBLE_CLASS, filled(hvClassID(c), 2, c - 5).release());
    }
    HvArrayPtr nd(hvCreateLogicalArray(3, dims3));
    static_cast<std::uint8_t*>(hvGetData(nd.get()))[11] = 1;
    hvSetFlags(nd.get(), hvFLAG_SPARSE);
    hvSetCell(numbers.get(), 10, nd.release());
    hvSetField(s.get(), 0, "numbers", numbers.release());
    hvSetField(s.get(), 0, "text", hvCreateString("caf\xc3\xa9"));
    const char* texts[] = {"one", "", "three"};
    const std::size_t sdims[] = {1, 3};
    hvSetField(s.get(), 1, "text", hvCreateStringObjectArray(2, sdims, texts));
    HvArrayPtr nested(hvCreateCellMatrix(2, 1));
    hvSetCell(nested.get(), 0, hvCreateFunctionHandle("sin"));
    hvSetCell(nested.get(), 1, hvCreateOpaqueGiblet(registerBox(), new int(41)));
    hvSetField(s.get(), 1, "nested", nested.release());
    hvSetField(s.get(), 0, "empty", hvCreateCellMatrix(0, 0));
    return s;
}

TEST(HvSerialize, EveryClassRoundTrips) {
    registerBox();
    HvArrayPtr value = everything();
    int saves = boxSaves, loads = boxLoads;
    HvArrayPtr back = roundTrip(value.get());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(boxSaves, saves + 1); // saved once, though the writer passes twice
    EXPECT_EQ(boxLoads, loads + 1);
    EXPECT_TRUE(hvAreMatricesEqual(value.get(), back.get()));
    const hvArray* nd = hvGetCell(hvGetField(back.get(), 0, "numbers"), 10);
    EXPECT_EQ(hvGetNumberOfDimensions(nd), 3u);
    EXPECT_EQ(hvGetFlags(nd), static_cast<std::uint32_t>(hvFLAG_SPARSE));
    EXPECT_STREQ(hvGetFieldNameByNumber(back.get(), 3), "empty");
    EXPECT_EQ(hvGetField(back.get(), 1, "empty"), nullptr);
    EXPECT_EQ(hvGetFunctionName(hvGetCell(hvGetField(back.get(), 1, "nested"), 0)), "sin");

    // A change anywhere inside makes the copies differ: equality really looks inside.
    boxed(hvGetCell(hvGetField(back.get(), 1, "nested"), 1)) = 40;
    EXPECT_FALSE(hvAreMatricesEqual(value.get(), back.get()));

    HvArrayPtr null = roundTrip(nullptr);
    EXPECT_EQ(null, nullptr);
    // The same value always gives the same bytes.
    EXPECT_EQ(bytesOf(value.get()), bytesOf(HvArrayPtr(hvDuplicateArray(value.get())).get()));
}

TEST(HvSerialize, LargeArraysRoundTripAndCopy) {
    // Large enough for the huge-page storage path: zero-filled, copied and written in bulk.
    const std::size_t n = 3u << 20;
    HvArrayPtr big(hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, n));
    const double* zeros = static_cast<const double*>(hvGetReadOnlyData(big.get()));
    EXPECT_EQ(zeros[0], 0.0);
    EXPECT_EQ(zeros[n - 1], 0.0);
    double* p = static_cast<double*>(hvGetData(big.get()));
    for (std::size_t i = 0; i < n; ++i) {
        p[i] = static_cast<double>(i) - 0.25;
    }
    HvArrayPtr back = roundTrip(big.get());
    EXPECT_TRUE(hvAreMatricesEqual(big.get(), back.get()));
    HvArrayPtr copy(hvCreateSharedDataCopy(back.get()));
    static_cast<double*>(hvGetData(copy.get()))[n - 1] = 1;
    EXPECT_EQ(static_cast<const double*>(hvGetReadOnlyData(back.get()))[n - 1], n - 1.25);
    EXPECT_FALSE(hvAreMatricesEqual(copy.get(), back.get()));
}

TEST(HvSerialize, UnsaveableAndUnknownClassesFail) {
    hvOpaqueClassOps noSave;
    const hvOpaqueClass* cls = hvSubclassOpaqueArray("test.NoSave", &noSave);
    HvArrayPtr opaque(hvCreateOpaqueMatrix(cls, 1, 1));
    HvArrayPtr cell(hvCreateCellMatrix(1, 1));
    hvSetCell(cell.get(), 0, opaque.release());
    EXPECT_NE(quorl_testing::errorOf<std::runtime_error>([&] {
                  HvArrayPtr(hvSerialize(cell.get()));
              }).find("test.NoSave"),
              std::string::npos);

    // Bytes naming an opaque class this process never registered.
    registerBox();
    HvArrayPtr box(hvCreateOpaqueGiblet(boxClass, new int(1)));
    std::vector<std::uint8_t> b = bytesOf(box.get());
    std::string text(b.begin(), b.end());
    std::size_t at = text.find("test.Box");
    ASSERT_NE(at, std::string::npos);
    b[at + 5] = 'X';
    EXPECT_THROW(hvDeserialize(b.data(), b.size()), std::runtime_error);
}

TEST(HvSerialize, CorruptAndTruncatedBytesAreRejected) {
    registerBox();
    HvArrayPtr value = everything();
    std::vector<std::uint8_t> b = bytesOf(value.get());
    // Every strict prefix is truncated.
    for (std::size_t n = 0; n < b.size(); ++n) {
        EXPECT_THROW(hvDeserialize(b.data(), n), std::runtime_error) << "prefix " << n;
    }
    std::vector<std::uint8_t> longer = b;
    longer.push_back(0);
    EXPECT_THROW(hvDeserialize(longer.data(), longer.size()), std::runtime_error);
    // Any single changed byte either still reads as some array or is rejected cleanly.
    std::size_t before = hvGetArrayListCount();
    for (std::size_t i = 0; i < b.size(); ++i) {
        for (std::uint8_t x : {std::uint8_t(0x01), std::uint8_t(0x80), std::uint8_t(0xff)}) {
            std::vector<std::uint8_t> c = b;
            c[i] ^= x;
            try {
                HvArrayPtr r(hvDeserialize(c.data(), c.size()));
            } catch (const std::runtime_error&) {
            }
        }
    }
    EXPECT_EQ(hvGetArrayListCount(), before); // nothing leaked on the failure paths

    std::vector<std::uint8_t> header = {'H', 'V', 'A', 1, 1};
    auto with = [&](std::vector<std::uint8_t> tail) {
        std::vector<std::uint8_t> r = header;
        r.insert(r.end(), tail.begin(), tail.end());
        return r;
    };
    auto rejects = [](const std::vector<std::uint8_t>& bytes, const std::string& words) {
        std::string const why = quorl_testing::errorOf<std::runtime_error>(
            [&] { HvArrayPtr(hvDeserialize(bytes.data(), bytes.size())); });
        EXPECT_NE(why.find(words), std::string::npos) << why << "; expected: " << words;
    };
    // A double array claiming 2^62 elements: rejected before any allocation.
    rejects(with({6, 0, 2, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x40, 1}), "truncated");
    // Dimensions whose product overflows.
    std::vector<std::uint8_t> huge = {6, 0, 3};
    for (int d = 0; d < 3; ++d) {
        huge.insert(huge.end(), 9, 0xff);
        huge.push_back(0x01);
    }
    rejects(with(huge), "does not fit");
    // A cell claiming a million elements in a few bytes.
    rejects(with({1, 0, 2, 0xc0, 0x84, 0x3d, 1, 0}), "more elements than data left");
    rejects(with({1, 0, 40, 1, 1}), "number of dimensions");
    rejects(with({5, 0, 2, 1, 1}), "unknown class");
    rejects(with({99}), "unknown class");
    rejects(with({6, 0, 2, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}),
            "64 bits");
    rejects({'H', 'V', 'A', 2, 1, 0}, "version");
    rejects({'X', 'V', 'A', 1, 1, 0}, "not a serialized array");
    // Deep nesting: 1-by-1 cells inside each other.
    std::vector<std::uint8_t> deep;
    for (int i = 0; i < 200; ++i) {
        deep.insert(deep.end(), {1, 0, 2, 1, 1});
    }
    deep.push_back(0);
    rejects(with(deep), "levels deep");
    rejects(with({2, 0, 2, 1, 1, 2, 1, 'a', 1, 'a', 0, 0}), "duplicate name");
    // Found by the fuzzer: a million objects of a class with properties, carrying none.
    const char* props[] = {"p"};
    hvClassDef def{"test.OneProp", nullptr, 0, props, 1};
    hvDefineClass(def);
    std::vector<std::uint8_t> objects = {18, 0, 2, 0xc0, 0x84, 0x3d, 1, 12};
    objects.insert(objects.end(), def.name, def.name + 12);
    objects.push_back(0);
    rejects(with(objects), "more objects than data left");
    // A function name with a NUL inside, found by the fuzzer.
    rejects(with({16, 0, 2, 1, 1, 2, 'a', 0, 0}), "NUL");
    rejects(with({16, 0, 2, 1, 1, 1, 0, 0}), "NUL");
    EXPECT_THROW(hvDeserialize(nullptr, 3), std::invalid_argument);
}

// The bytes of hvSerializeTo, gathered, with the size it announced first.
std::vector<std::uint8_t> streamedBytesOf(const hvArray* a) {
    std::vector<std::uint8_t> out;
    std::size_t announced = static_cast<std::size_t>(-1);
    hvSerializeTo(
        a,
        [&](std::size_t n) {
            EXPECT_TRUE(out.empty());
            announced = n;
        },
        [&](const void* p, std::size_t n) {
            EXPECT_NE(n, 0u);
            auto b = static_cast<const std::uint8_t*>(p);
            out.insert(out.end(), b, b + n);
        });
    EXPECT_EQ(announced, out.size());
    return out;
}

// Reads `bytes` through hvDeserializeFrom with `claimed` as the size; the reader refuses to hand
// out more than `bytes` holds.
struct StreamRead {
    HvArrayPtr array;
    std::vector<std::uint8_t> kept;
    std::size_t asked = 0;
};
StreamRead streamRead(const std::vector<std::uint8_t>& bytes, std::size_t claimed) {
    StreamRead r;
    r.array.reset(hvDeserializeFrom(
        claimed,
        [&](void* p, std::size_t n) {
            if (r.asked + n > bytes.size()) {
                throw std::runtime_error("read beyond the bytes");
            }
            std::memcpy(p, bytes.data() + r.asked, n);
            r.asked += n;
        },
        r.kept));
    return r;
}

TEST(HvSerialize, StreamedFormsAreTheSameBytesAndBuildOnlyRawArrays) {
    registerBox();
    HvArrayPtr value = everything();
    HvArrayPtr big = filled(hvINT16_CLASS, 3, 5000); // element data larger than a gathered block
    const std::size_t dims3[] = {2, 3, 4};
    HvArrayPtr nd(hvCreateNumericArray(hvSINGLE_CLASS, 3, dims3));
    hvSetFlags(nd.get(), hvFLAG_SPARSE);
    HvArrayPtr empty(hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 3));
    const std::vector<const hvArray*> arrays{value.get(), big.get(), nd.get(), empty.get(),
                                             nullptr};
    for (const hvArray* a : arrays) {
        const std::vector<std::uint8_t> bytes = bytesOf(a);
        EXPECT_EQ(streamedBytesOf(a), bytes);
        StreamRead r = streamRead(bytes, bytes.size());
        EXPECT_EQ(r.asked, bytes.size());
        if (a != nullptr && a != value.get()) {
            // Raw elements: built here, equal to the original, flags and dimensions included.
            ASSERT_NE(r.array, nullptr);
            EXPECT_TRUE(r.kept.empty());
            EXPECT_TRUE(hvAreMatricesEqual(r.array.get(), a));
            EXPECT_EQ(hvGetFlags(r.array.get()), hvGetFlags(a));
            EXPECT_EQ(hvGetNumberOfDimensions(r.array.get()), hvGetNumberOfDimensions(a));
        } else {
            // Containers, opaque arrays and null are handed back as their bytes, unbuilt.
            EXPECT_EQ(r.array, nullptr);
            EXPECT_EQ(r.kept, bytes);
        }
    }
}

TEST(HvSerialize, StreamedReadRefusesLengthsBeyondItsSizeBeforeAllocating) {
    HvArrayPtr a = filled(hvDOUBLE_CLASS, 1, 1000);
    const std::vector<std::uint8_t> bytes = bytesOf(a.get());
    // A size short of the elements: refused once the dimensions are read.
    std::string why =
        quorl_testing::errorOf<std::runtime_error>([&] { streamRead(bytes, bytes.size() - 8); });
    EXPECT_NE(why.find("truncated"), std::string::npos) << why;
    // Dimensions claiming 2^40 elements in 64 bytes: refused without reading any.
    std::vector<std::uint8_t> huge =
        bytesOf(HvArrayPtr(hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, 1)).get());
    huge.resize(huge.size() - 9); // the data and the second dimension
    for (std::uint8_t b : {0x80, 0x80, 0x80, 0x80, 0x80, 0x20}) {
        huge.push_back(b);
    }
    why = quorl_testing::errorOf<std::runtime_error>([&] { streamRead(huge, huge.size() + 64); });
    EXPECT_NE(why.find("elements of 8 bytes"), std::string::npos) << why;
    // Bytes after the array, and a corrupt header, refused as hvDeserialize refuses them.
    std::vector<std::uint8_t> longer = bytes;
    longer.push_back(0);
    EXPECT_THROW(streamRead(longer, longer.size()), std::runtime_error);
    std::vector<std::uint8_t> wrong = bytes;
    wrong[0] = 'X';
    EXPECT_THROW(streamRead(wrong, wrong.size()), std::runtime_error);
    // Too short for a header: handed back as bytes, for hvDeserialize to refuse.
    StreamRead small = streamRead(std::vector<std::uint8_t>{'H', 'V'}, 2);
    EXPECT_EQ(small.array, nullptr);
    EXPECT_THROW(hvDeserialize(small.kept.data(), small.kept.size()), std::runtime_error);
}

} // namespace
