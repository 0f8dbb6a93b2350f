#include <quorl/matrixref/refpersistform.hpp>

#include <cstring>

namespace quorl {
namespace matrixref {

namespace {

hvArray* uint64Row(std::vector<std::uint64_t> const& values) {
    hvArray* row = hvCreateNumericMatrix(hvUINT64_CLASS, 1, values.size());
    if (!values.empty())
        std::memcpy(hvGetData(row), values.data(), values.size() * sizeof(std::uint64_t));
    return row;
}

bool readUint64s(hvArray const* cell, std::vector<std::uint64_t>& out) {
    if (hvGetClassID(cell) != hvUINT64_CLASS)
        return false;
    std::size_t n = hvGetNumberOfElements(cell);
    out.resize(n);
    if (n != 0)
        std::memcpy(out.data(), hvGetReadOnlyData(cell), n * sizeof(std::uint64_t));
    return true;
}

bool readScalar(hvArray const* cell, std::uint64_t& out) {
    std::vector<std::uint64_t> values;
    if (!readUint64s(cell, values) || values.size() != 1)
        return false;
    out = values[0];
    return true;
}

bool readLogical(hvArray const* cell, bool& out) {
    if (hvGetClassID(cell) != hvLOGICAL_CLASS || hvGetNumberOfElements(cell) != 1)
        return false;
    out = *static_cast<unsigned char const*>(hvGetReadOnlyData(cell)) != 0;
    return true;
}

} // namespace

HvArrayPtr RefPersistForm::emptyArray() {
    return HvArrayPtr(hvCreateCellMatrix(NumberOfCells, 1));
}

HvArrayPtr RefPersistForm::toArray() const {
    HvArrayPtr cell = emptyArray();
    std::vector<std::uint64_t> dims(dimensions.begin(), dimensions.end());
    while (dims.size() < 2)
        dims.push_back(dims.empty() ? 0 : 1);
    hvSetCell(cell.get(), 0, uint64Row({tag}));
    hvSetCell(cell.get(), 1, hvCreateLogicalScalar(saverHoldsArray));
    hvSetCell(cell.get(), 2, hvCreateLogicalScalar(element));
    hvSetCell(cell.get(), 3, uint64Row({elementIndex}));
    hvSetCell(cell.get(), 4, hvCreateString(className.c_str()));
    hvSetCell(cell.get(), 5, uint64Row(dims));
    hvSetCell(cell.get(), 6, uint64Row({clientTarn.value}));
    hvSetCell(cell.get(), 7, hvCreateLogicalScalar(indexable));
    return cell;
}

boost::optional<RefPersistForm> RefPersistForm::fromArray(hvArray_tag const* array) {
    if (hvGetClassID(array) != hvCELL_CLASS || hvGetNumberOfElements(array) != NumberOfCells ||
        hvGetCell(array, 0) == nullptr)
        return boost::none;
    RefPersistForm form;
    std::vector<std::uint64_t> dims;
    hvArray const* name = hvGetCell(array, 4);
    if (!readScalar(hvGetCell(array, 0), form.tag) ||
        !readLogical(hvGetCell(array, 1), form.saverHoldsArray) ||
        !readLogical(hvGetCell(array, 2), form.element) ||
        !readScalar(hvGetCell(array, 3), form.elementIndex) || hvGetClassID(name) != hvCHAR_CLASS ||
        !readUint64s(hvGetCell(array, 5), dims) || dims.size() < 2 ||
        !readScalar(hvGetCell(array, 6), form.clientTarn.value) ||
        !readLogical(hvGetCell(array, 7), form.indexable))
        return boost::none;
    form.className = hvArrayToStdString(name);
    form.dimensions.assign(dims.begin(), dims.end());
    if (!form.element)
        form.elementIndex = 0;
    return form;
}

} // namespace matrixref
} // namespace quorl
