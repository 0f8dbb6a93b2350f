// Writes seed inputs for hv_fuzz_deserialize: serialized arrays of every class, one per file.
// Usage: hv_fuzz_seeds DIRECTORY
#include "fuzzclasses.hpp"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

void write(const std::string& dir, const std::string& name, const hvArray* array) {
    HvArrayPtr bytes(hvSerialize(array));
    std::string path = dir + "/seed-" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::fwrite(hvGetReadOnlyData(bytes.get()), 1, hvGetNumberOfElements(bytes.get()), f);
    std::fclose(f);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
    hvfuzz::registerClasses();
    write(dir, "null", nullptr);
    for (int cls = hvDOUBLE_CLASS; cls <= hvUINT64_CLASS; ++cls) {
        HvArrayPtr a(hvCreateNumericMatrix(static_cast<hvClassID>(cls), 2, 3));
        static_cast<std::uint8_t*>(hvGetData(a.get()))[1] = 7;
        write(dir, std::string("numeric-") + hvGetClassName(a.get()), a.get());
    }
    const std::size_t dims3[] = {2, 1, 2};
    HvArrayPtr logical(hvCreateLogicalArray(3, dims3));
    hvSetFlags(logical.get(), hvFLAG_SPARSE);
    write(dir, "logical-3d", logical.get());
    HvArrayPtr text(hvCreateString("h\xc3\xa9llo"));
    write(dir, "char", text.get());
    const char* fields[] = {"file", "name", "line"};
    HvArrayPtr frames(hvCreateStructMatrix(2, 1, 3, fields));
    hvSetField(frames.get(), 0, "file", hvCreateString("a.m"));
    hvSetField(frames.get(), 0, "line", hvCreateDoubleScalar(3));
    write(dir, "struct", frames.get());
    const char* strings[] = {"a", "bc"};
    const std::size_t sdims[] = {1, 2};
    HvArrayPtr str(hvCreateStringObjectArray(2, sdims, strings));
    write(dir, "string", str.get());
    HvArrayPtr pair(hvCreateClassArray("fuzz.Pair", 1, 1));
    hvSetProperty(pair.get(), 0, "left", str.get());
    write(dir, "object", pair.get());
    HvArrayPtr box(hvCreateOpaqueGiblet(hvFindOpaqueClass("fuzz.Box"), new std::int64_t(5)));
    write(dir, "opaque", box.get());
    HvArrayPtr cell(hvCreateCellMatrix(2, 2));
    hvSetCell(cell.get(), 0, hvCreateFunctionHandle("sin"));
    hvSetCell(cell.get(), 1, hvCreateSharedDataCopy(box.get()));
    hvSetCell(cell.get(), 2, hvCreateSharedDataCopy(frames.get()));
    HvArrayPtr inner(hvCreateCellMatrix(1, 1));
    hvSetCell(inner.get(), 0, hvCreateSharedDataCopy(pair.get()));
    hvSetCell(cell.get(), 3, inner.release());
    write(dir, "nested", cell.get());
    return 0;
}
