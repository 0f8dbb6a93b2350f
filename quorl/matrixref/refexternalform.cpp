#include <quorl/matrixref/refexternalform.hpp>

#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/refpersistform.hpp>

#include <hv/hvopaque.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace quorl {
namespace matrixref {

namespace ext = foundation::extdata;
using contextmgr::TarnID;

namespace {

char const* const FieldName = "Internal_Matrix_Reference____";

hvOpaqueClass const* referenceClass() {
    return detail::refTable() ? hvFindOpaqueClass(FieldName) : nullptr;
}

// The tag cell of a form made here: its bytes live beside the reference they belong to, so the
// reference lives as long as any Array sharing them.
struct HeldReference {
    HvArrayPtr ref;
    std::uint64_t tag;
};

ext::Array heldTag(HvArrayPtr const& ref, std::uint64_t tag) {
    auto held = std::make_shared<HeldReference>();
    held->ref.reset(hvCreateSharedDataCopy(ref.get()));
    held->tag = tag;
    std::shared_ptr<char> bytes(held, reinterpret_cast<char*>(&held->tag));
    return ext::Array::adoptBytes(ext::UINT64, {1, 1}, std::move(bytes), sizeof(std::uint64_t));
}

ext::Array logical(bool value) {
    return ext::Array::createLogical({1, 1}, {value});
}

bool readLogical(ext::Array const& a, bool& out) {
    if (a.getType() != ext::LOGICAL || a.getNumberOfElements() != 1)
        return false;
    out = a.get<bool>(0);
    return true;
}

bool readUint64(ext::Array const& a, std::uint64_t& out) {
    if (a.getType() != ext::UINT64 || a.getNumberOfElements() != 1)
        return false;
    out = a.get<std::uint64_t>(0);
    return true;
}

// The saved form held in an external form; none when it is malformed.
boost::optional<RefPersistForm> persistFormOf(ext::Array const& value) {
    if (!refIsExternalRef(value))
        return boost::none;
    ext::Array const& cell = value.getField(0, std::size_t(0));
    RefPersistForm form;
    std::uint64_t tarn = 0;
    ext::Array const& name = cell.getCell(4);
    ext::Array const& dims = cell.getCell(5);
    if (!readUint64(cell.getCell(0), form.tag) ||
        !readLogical(cell.getCell(1), form.saverHoldsArray) ||
        !readLogical(cell.getCell(2), form.element) ||
        !readUint64(cell.getCell(3), form.elementIndex) || name.getType() != ext::CHAR ||
        dims.getType() != ext::UINT64 || dims.getNumberOfElements() < 2 ||
        !readUint64(cell.getCell(6), tarn) || !readLogical(cell.getCell(7), form.indexable))
        return boost::none;
    std::u16string const text = name.getCharacters();
    for (char16_t c : text) {
        if (c > 0x7f)
            return boost::none; // class names are ASCII
        form.className.push_back(static_cast<char>(c));
    }
    std::uint64_t const* d = dims.getData<std::uint64_t>();
    form.dimensions.assign(d, d + dims.getNumberOfElements());
    form.clientTarn = TarnID{tarn};
    return form;
}

} // namespace

bool refIsExternalRef(ext::Array const& value) {
    if (value.getType() != ext::STRUCT || value.getNumberOfElements() != 1)
        return false;
    auto const& names = value.getFieldNames();
    if (names.size() != 1 || names[0] != FieldName)
        return false;
    ext::Array const& cell = value.getField(0, std::size_t(0));
    return cell.getType() == ext::CELL &&
           cell.getNumberOfElements() == RefPersistForm::NumberOfCells;
}

ext::Array refToExternal(HvArrayPtr const& ref, bool hold) {
    hvOpaqueClass const* cls = referenceClass();
    if (!cls || !refIsRef(ref))
        return ext::Array();
    HvArrayPtr saved(hvGetOpaqueClassOps(cls)->save(ref.get()));
    auto form = RefPersistForm::fromArray(saved.get());
    if (!form)
        return ext::Array(); // an empty or dangling reference stands for nothing
    std::u16string name(form->className.begin(), form->className.end());
    std::vector<std::uint64_t> dims(form->dimensions.begin(), form->dimensions.end());
    std::vector<ext::Array> cells;
    cells.push_back(hold ? heldTag(ref, form->tag)
                         : ext::Array::createScalar<std::uint64_t>(form->tag));
    cells.push_back(logical(form->saverHoldsArray));
    cells.push_back(logical(form->element));
    cells.push_back(ext::Array::createScalar<std::uint64_t>(form->elementIndex));
    cells.push_back(ext::Array::createChar(name));
    cells.push_back(ext::Array::create<std::uint64_t>({1, dims.size()}, dims));
    cells.push_back(ext::Array::createScalar<std::uint64_t>(form->clientTarn.value));
    cells.push_back(logical(form->indexable));
    ext::Array cell = ext::Array::createCell({RefPersistForm::NumberOfCells, 1}, std::move(cells));
    return ext::Array::createStruct({1, 1}, {FieldName}, {std::move(cell)});
}

HvArrayPtr refFromExternal(ext::Array const& value) {
    hvOpaqueClass const* cls = referenceClass();
    if (!cls)
        return nullptr;
    auto form = persistFormOf(value);
    if (!form)
        return nullptr;
    HvArrayPtr saved = form->toArray();
    return HvArrayPtr(hvGetOpaqueClassOps(cls)->load(cls, saved.get()));
}

ext::Array refAdoptExternal(ext::Array const& value, std::string const& source) {
    switch (value.getType()) {
    case ext::STRUCT: {
        if (auto form = persistFormOf(value)) {
            if (!referenceClass())
                return value;
            // Register first: if the reference dies at once, its release knows where to go.
            if (form->saverHoldsArray)
                detail::refRegisterExchange(form->clientTarn, source);
            HvArrayPtr ref = refFromExternal(value);
            if (!refIsRef(ref))
                return value; // came home as the array itself: nothing to hold here
            ext::Array held = refToExternal(ref, true);
            return held.getType() == ext::UNKNOWN ? value : held;
        }
        std::size_t const fields = value.getFieldNames().size();
        std::vector<ext::Array> values;
        bool changed = false;
        for (std::size_t i = 0; i < value.getNumberOfElements(); ++i) {
            for (std::size_t f = 0; f < fields; ++f) {
                values.push_back(refAdoptExternal(value.getField(i, f), source));
                changed = changed || !(values.back() == value.getField(i, f));
            }
        }
        return changed ? ext::Array::createStruct(value.getDimensions(), value.getFieldNames(),
                                                  std::move(values))
                       : value;
    }
    case ext::CELL: {
        std::vector<ext::Array> cells;
        bool changed = false;
        for (std::size_t i = 0; i < value.getNumberOfElements(); ++i) {
            cells.push_back(refAdoptExternal(value.getCell(i), source));
            changed = changed || !(cells.back() == value.getCell(i));
        }
        return changed ? ext::Array::createCell(value.getDimensions(), std::move(cells)) : value;
    }
    default:
        return value;
    }
}

TarnID refExchangeTarn(std::string const& name) {
    // FNV-1a, 64 bits: stable across processes and builds, as both sides must agree.
    std::uint64_t h = 14695981039346656037ull;
    for (unsigned char c : name) {
        h ^= c;
        h *= 1099511628211ull;
    }
    if (h <= contextmgr::BlessedTarnID.value)
        h += 2;
    return TarnID{h};
}

} // namespace matrixref
} // namespace quorl
