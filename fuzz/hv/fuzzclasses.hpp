#pragma once
// Classes the hv fuzz target and its seed writer register, so that bytes naming them reach the
// opaque load path and object properties, as they would in a host.
#include <hv/hvarray.hpp>

#include <cstdint>
#include <cstring>

namespace hvfuzz {

inline void destroyBox(void* giblet) {
    delete static_cast<std::int64_t*>(giblet);
}
inline void* shareBox(void* giblet) {
    return new std::int64_t(*static_cast<std::int64_t*>(giblet));
}

// Saved as a cell {int64 value, char tag}; anything else is refused on load.
inline hvArray* saveBox(const hvArray* a) {
    HvArrayPtr cell(hvCreateCellMatrix(1, 2));
    hvSetCell(cell.get(), 0,
              hvCreateNumericScalar(hvINT64_CLASS,
                                    double(*static_cast<std::int64_t*>(hvGetOpaqueGiblet(a)))));
    hvSetCell(cell.get(), 1, hvCreateString("box"));
    return cell.release();
}

inline hvArray* loadBox(const hvOpaqueClass* cls, const hvArray* saved) {
    if (hvGetClassID(saved) != hvCELL_CLASS || hvGetNumberOfElements(saved) != 2) {
        return nullptr;
    }
    const hvArray* value = hvGetCell(saved, 0);
    const hvArray* tag = hvGetCell(saved, 1);
    if (hvGetClassID(value) != hvINT64_CLASS || hvGetNumberOfElements(value) != 1 ||
        hvGetClassID(tag) != hvCHAR_CLASS) {
        return nullptr;
    }
    std::int64_t v;
    std::memcpy(&v, hvGetReadOnlyData(value), sizeof v);
    return hvCreateOpaqueGiblet(cls, new std::int64_t(v));
}

inline void registerClasses() {
    static bool done = [] {
        hvOpaqueClassOps ops;
        ops.destroy = &destroyBox;
        ops.share = &shareBox;
        ops.save = &saveBox;
        ops.load = &loadBox;
        hvSubclassOpaqueArray("fuzz.Box", &ops);
        const char* props[] = {"left", "right"};
        hvClassDef pair;
        pair.name = "fuzz.Pair";
        pair.properties = props;
        pair.nproperties = 2;
        hvDefineClass(pair);
        return true;
    }();
    (void)done;
}

} // namespace hvfuzz
