#include <quorl/matrixref/matrixref.hpp>

#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/extstring/extstring.hpp>
#include <quorl/matrixref/matrixrefhandle.hpp>
#include <quorl/matrixref/matrixreftable.hpp>
#include <quorl/matrixref/refpersistform.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/once.hpp>

#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <unordered_set>

namespace quorl {
namespace matrixref {

using contextmgr::TarnID;
using contextmgr::UndefinedTarnID;

namespace {

char const* const ClassName = "Internal_Matrix_Reference____";

// The header mark tells the uses of the class apart.
enum Mark : unsigned char { MarkReference = 0, MarkInstance = 1, MarkDisplay = 2 };

// Written once under initOnce; `tablePtr` is published last, so a reader that sees it non-null
// also sees the rest.
boost::once_flag initOnce = BOOST_ONCE_INIT;
std::atomic<hvOpaqueClass const*> theClass{nullptr};
std::atomic<MatrixRefTable*> tablePtr{nullptr};
detail::ElementFixup elementFixup;
detail::ConversionSupported conversionSupported;
std::atomic<int> classIndexValue{hvOPAQUE_CLASS};

// Owns the process's table; at exit it hides the table before destroying it, so that arrays
// dying later find no table rather than a dead one.
struct TableHolder {
    boost::shared_ptr<MatrixRefTable> table;
    ~TableHolder() {
        tablePtr.store(nullptr);
        table.reset();
    }
};
TableHolder holder;

MatrixRefTable* table() {
    return tablePtr.load(std::memory_order_acquire);
}

MatrixRefTable& requireTable() {
    MatrixRefTable* t = table();
    if (!t)
        throw std::logic_error("matrix references are used before refInitMatrixReferences");
    return *t;
}

// Class names of remote arrays, kept for the rest of the process so that the pointers that
// refGetRefClassName hands out stay valid after their entries have gone.
char const* internName(std::string const& name) {
    static std::mutex mutex;
    static auto* names = new std::unordered_set<std::string>;
    std::lock_guard<std::mutex> guard(mutex);
    return names->insert(name).first->c_str();
}

bool isRef(hvArray_tag const* array) {
    hvOpaqueClass const* cls = theClass.load(std::memory_order_acquire);
    return cls && hvIsOpaqueOfClass(array, cls);
}

MatrixRefHandle* handleOf(hvArray_tag const* array) {
    return isRef(array) ? static_cast<MatrixRefHandle*>(hvGetOpaqueGiblet(array)) : nullptr;
}

// The entry a reference names; null for other arrays, empty and dangling references.
boost::shared_ptr<MatrixReference> entryOf(MatrixRefHandle const* handle) {
    MatrixRefTable* t = table();
    return handle && t ? t->find(handle->tag) : boost::shared_ptr<MatrixReference>();
}

// One sharer of `handle` ends; true (and the handle freed) when it was the last.
bool dropSharer(MatrixRefHandle* handle) {
    if (handle->sharers.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return false;
    delete handle;
    return true;
}

HvArrayPtr newRef(MatrixRefHandle* handle) {
    HvArrayPtr ref(hvCreateOpaqueMatrix(theClass.load(), 1, 1));
    hvSetOpaqueGiblet(ref.get(), handle);
    return ref;
}

std::vector<std::size_t> dimsOf(hvArray_tag const* array) {
    std::size_t n = hvGetNumberOfDimensions(array);
    std::size_t const* d = hvGetDimensions(array);
    return std::vector<std::size_t>(d, d + n);
}

// Dimensions as a saved form carries them: an array of two dimensions gives rows and columns.
std::vector<std::size_t> savedDimsOf(hvArray_tag const* array) {
    if (hvGetNumberOfDimensions(array) <= 2)
        return {hvGetM(array), hvGetN(array)};
    return dimsOf(array);
}

bool isIndexable(hvArray_tag const* array) {
    switch (hvGetClassID(array)) {
    case hvCELL_CLASS:
    case hvSTRUCT_CLASS:
    case hvCHAR_CLASS:
    case hvINT8_CLASS:
    case hvUINT8_CLASS:
    case hvINT16_CLASS:
    case hvUINT16_CLASS:
    case hvINT32_CLASS:
    case hvUINT32_CLASS:
    case hvINT64_CLASS:
    case hvUINT64_CLASS:
    case hvOPAQUE_CLASS:
        return true;
    case hvLOGICAL_CLASS:
    case hvDOUBLE_CLASS:
    case hvSINGLE_CLASS:
        return (hvGetFlags(array) & hvFLAG_SPARSE) == 0;
    default:
        return false;
    }
}

// What an entry stands for, as far as the questions about it go.
struct TargetInfo {
    std::string className;
    std::vector<std::size_t> dims;
    bool indexable = false;
};

TargetInfo describe(MatrixReference const& entry) {
    TargetInfo info;
    if (hvArray_tag const* array = entry.array()) {
        info.className = hvGetClassName(array);
        info.dims = dimsOf(array);
        info.indexable = isIndexable(array);
    } else if (RemoteRefInfo const* remote = entry.remote()) {
        info.className = remote->className;
        info.dims = remote->dimensions;
        info.indexable = remote->indexable;
    }
    return info;
}

std::size_t product(std::vector<std::size_t> const& dims) {
    std::size_t n = 1;
    for (std::size_t d : dims)
        n *= d;
    return n;
}

HvArrayPtr noElement() {
    HvArrayPtr empty(hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
    hvSetFlags(empty.get(), hvGetFlags(empty.get()) | hvFLAG_NO_ELEMENT);
    return empty;
}

// Element `index` (zero-based) of `whole`, or null when there is none.
HvArrayPtr extractElement(HvArrayPtr whole, std::uint64_t index) {
    if (!whole || (hvGetFlags(whole.get()) & hvFLAG_SPARSE) != 0 ||
        index >= hvGetNumberOfElements(whole.get()))
        return nullptr;
    hvClassID cls = hvGetClassID(whole.get());
    if (cls < hvCELL_CLASS || cls > hvOPAQUE_CLASS)
        return nullptr;
    switch (cls) {
    case hvCELL_CLASS: {
        hvArray_tag const* cell = hvGetCell(whole.get(), index);
        // An empty cell has no array of its own: it reads as a 0-by-0 double.
        HvArrayPtr element(cell ? hvCreateSharedDataCopy(cell)
                                : hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
        hvSetArrayScope(element.get(), hvSCOPE_TEMPORARY);
        return element;
    }
    case hvSTRUCT_CLASS:
    case hvOPAQUE_CLASS: {
        HvArrayPtr element(hvSubscriptedReference(whole.get(), index + 1));
        if (hvIsHeterogeneousArray(whole.get()) && elementFixup)
            elementFixup(element.get());
        return element;
    }
    case hvVOID_CLASS:
    case hvFUNCTION_CLASS:
        return noElement();
    default:
        return HvArrayPtr(hvSubscriptedReference(whole.get(), index + 1));
    }
}

HvArrayPtr getRef(hvArray_tag const* ref, bool release) {
    MatrixRefHandle* handle = handleOf(ref);
    auto entry = entryOf(handle);
    if (!entry || !entry->isLocal())
        return nullptr;
    HvArrayPtr array = requireTable().takeArray(handle->tag, release);
    if (handle->elementFlag)
        return extractElement(std::move(array), handle->elementIndex);
    return array;
}

void display(hvArray_tag const* ref) {
    MatrixRefHandle* handle = handleOf(ref);
    auto entry = entryOf(handle);
    if (!entry) {
        utPrintf("%s : empty\n", ClassName);
        return;
    }
    TargetInfo info = describe(*entry);
    RefTag shown = entry->isLocal() ? handle->tag : entry->remote()->remoteTag;
    utPrintf("%s : %s tag 0x%08lx\n", ClassName, entry->isLocal() ? "local" : "remote",
             static_cast<unsigned long>(shown));
    utPrintf("    --> %s [", info.className.c_str());
    for (std::size_t i = 0; i < info.dims.size(); ++i)
        utPrintf(i ? ", %lu" : "%lu", static_cast<unsigned long>(info.dims[i]));
    utPrintf("]\n");
    if (handle->elementFlag)
        utPrintf("    element %lu\n", static_cast<unsigned long>(handle->elementIndex));
}

// ----- the class's operations -----

hvArray_tag* opCreateByName(hvOpaqueClass const* cls, char const* name) {
    if (!name || std::strcmp(name, ClassName) != 0)
        return nullptr;
    hvArray_tag* array = hvCreateOpaqueMatrix(cls, 1, 1);
    hvSetOpaqueMark(array, MarkInstance);
    return array;
}

hvArray_tag* opFindMethod(hvArray_tag const*, char const* name) {
    if (!name || (std::strcmp(name, "disp") != 0 && std::strcmp(name, "display") != 0))
        return nullptr;
    hvArray_tag* method = hvCreateOpaqueMatrix(theClass.load(), 1, 1);
    hvSetOpaqueMark(method, MarkDisplay);
    return method;
}

bool opCallMethod(hvArray_tag const* method, int, hvArray_tag**, int nrhs,
                  hvArray_tag const* const* prhs) {
    if (hvGetOpaqueMark(method) != MarkDisplay || nrhs < 1)
        return false;
    display(prhs[0]);
    return true;
}

bool opConstruct(hvOpaqueClass const*, int nlhs, hvArray_tag** plhs, int nrhs,
                 hvArray_tag const* const* prhs) {
    if (nlhs < 1 || !table())
        return false;
    TarnID current = UndefinedTarnID;
    try {
        current = contextmgr::ContextRegistry::getTarnID();
    } catch (...) {
        return false;
    }
    HvArrayPtr source(nrhs > 0 ? hvCreateSharedDataCopy(prhs[0]) : nullptr);
    plhs[0] = refCreateRef(current, current, source, false).release();
    return true;
}

void* opShare(void* giblet) {
    static_cast<MatrixRefHandle*>(giblet)->sharers.fetch_add(1, std::memory_order_relaxed);
    return giblet;
}

// The end of one sharer: the last one frees the handle and releases its count.
void opDestroy(void* giblet) {
    auto* handle = static_cast<MatrixRefHandle*>(giblet);
    RefTag tag = handle->tag;
    if (dropSharer(handle)) {
        if (MatrixRefTable* t = table())
            t->releaseTag(tag, 1);
    }
}

hvArray_tag* opSave(hvArray_tag const* ref) {
    MatrixRefHandle* handle = handleOf(ref);
    auto entry = entryOf(handle);
    if (!entry)
        return RefPersistForm::emptyArray().release();
    RefPersistForm form;
    form.element = handle->elementFlag != 0;
    form.elementIndex = handle->elementIndex;
    form.clientTarn = handle->clientTarn;
    if (hvArray_tag const* array = entry->array()) {
        form.tag = handle->tag;
        form.saverHoldsArray = true;
        form.className = hvGetClassName(array);
        form.dimensions = savedDimsOf(array);
        form.indexable = isIndexable(array);
    } else {
        RemoteRefInfo const* remote = entry->remote();
        form.tag = remote->remoteTag;
        form.saverHoldsArray = false;
        form.className = remote->className;
        form.dimensions = remote->dimensions;
        form.indexable = remote->indexable;
    }
    return form.toArray().release();
}

hvArray_tag* opLoad(hvOpaqueClass const* cls, hvArray_tag const* saved) {
    auto form = RefPersistForm::fromArray(saved);
    MatrixRefTable* t = table();
    if (!form || !t)
        return hvCreateOpaqueMatrix(cls, 1, 1);
    if (form->saverHoldsArray) {
        // The saver holds the array: here it is remote, known by the saver's tag and context.
        RefTag tag = t->insertRemote(form->clientTarn, form->tag, form->clientTarn, form->className,
                                     form->dimensions, form->indexable);
        return newRef(new MatrixRefHandle(tag, form->element, form->elementIndex, form->clientTarn))
            .release();
    }
    // The saver held a reference to an array of ours. The count added here is kept even when
    // the description does not match: the peer's release will take it off again.
    if (t->addReference(form->tag) != form->tag)
        return hvCreateOpaqueMatrix(cls, 1, 1);
    auto entry = t->find(form->tag);
    hvArray_tag const* array = entry ? entry->array() : nullptr;
    if (!array || form->className != hvGetClassName(array) ||
        form->dimensions != savedDimsOf(array))
        return hvCreateOpaqueMatrix(cls, 1, 1);
    HvArrayPtr ref =
        newRef(new MatrixRefHandle(form->tag, form->element, form->elementIndex, form->clientTarn));
    // A reference that comes home turns back into its array, or element.
    return refReleaseLocalRef(ref).release();
}

void opUpdateSize(hvArray_tag* ref) {
    if (hvGetOpaqueMark(ref) != MarkReference)
        return;
    MatrixRefHandle* handle = handleOf(ref);
    auto entry = entryOf(handle);
    std::vector<std::size_t> dims{0, 0};
    if (entry)
        dims = handle->elementFlag ? std::vector<std::size_t>{1, 1} : describe(*entry).dims;
    hvSetDimensions(ref, dims.size(), dims.data());
}

bool opEqual(hvArray_tag const* a, hvArray_tag const* b) {
    MatrixRefHandle const* ha = handleOf(a);
    MatrixRefHandle const* hb = handleOf(b);
    if (!ha || !hb)
        return !ha && !hb;
    return ha->tag == hb->tag && ha->elementFlag == hb->elementFlag &&
           (!ha->elementFlag || ha->elementIndex == hb->elementIndex);
}

bool opIsClassName(char const* name) {
    return name && std::strcmp(name, ClassName) == 0;
}

int opClassIndex() {
    return classIndexValue.load();
}

char const* opClassNameFromIndex(int index) {
    return index != hvOPAQUE_CLASS && index == classIndexValue.load() ? ClassName : nullptr;
}

void initialise(detail::ElementFixup const& fixup, detail::ConversionSupported const& supported) {
    hvOpaqueClassOps ops;
    ops.createByName = &opCreateByName;
    ops.findMethod = &opFindMethod;
    ops.callMethod = &opCallMethod;
    ops.construct = &opConstruct;
    ops.share = &opShare;
    ops.destroy = &opDestroy;
    ops.save = &opSave;
    ops.load = &opLoad;
    ops.updateSize = &opUpdateSize;
    ops.equal = &opEqual;
    ops.isClassName = &opIsClassName;
    ops.classIndex = &opClassIndex;
    ops.classNameFromIndex = &opClassNameFromIndex;
    theClass.store(hvSubclassOpaqueArray(ClassName, &ops), std::memory_order_release);
    holder.table = boost::make_shared<MatrixRefTable>(0);
    if (supported)
        conversionSupported = supported;
    if (fixup)
        elementFixup = fixup;
    tablePtr.store(holder.table.get(), std::memory_order_release);
}

// Copies `array` deeply, cells and structs (and objects, as structs) element by element, and
// every other value through `leaf`.
template <class Leaf> HvArrayPtr copyDeep(hvArray_tag const* array, Leaf const& leaf) {
    if (!array)
        return nullptr;
    hvClassID cls = hvGetClassID(array);
    std::size_t ndim = hvGetNumberOfDimensions(array);
    std::size_t const* dims = hvGetDimensions(array);
    std::size_t n = hvGetNumberOfElements(array);
    if (cls == hvCELL_CLASS) {
        HvArrayPtr out(hvCreateCellArray(ndim, dims));
        for (std::size_t i = 0; i < n; ++i) {
            hvArray_tag const* cell = hvGetCell(array, i);
            hvSetCell(out.get(), i,
                      cell ? copyDeep(cell, leaf).release()
                           : hvCreateNumericMatrix(hvDOUBLE_CLASS, 0, 0));
        }
        return out;
    }
    if (cls == hvSTRUCT_CLASS || cls == hvOBJECT_CLASS) {
        std::size_t nfields = hvGetNumberOfFields(array);
        std::vector<char const*> names(nfields);
        for (std::size_t f = 0; f < nfields; ++f)
            names[f] = hvGetFieldNameByNumber(array, f);
        HvArrayPtr out(hvCreateStructArray(ndim, dims, nfields, names.data()));
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t f = 0; f < nfields; ++f) {
                if (hvArray_tag const* value = hvGetFieldByNumber(array, i, f))
                    hvSetFieldByNumber(out.get(), i, f, copyDeep(value, leaf).release());
            }
        }
        return out;
    }
    return leaf(array);
}

} // namespace

HvArrayPtr refCreateRef(TarnID const& client, TarnID const& server, HvArrayPtr& array,
                        bool addReference) {
    MatrixRefTable& t = requireTable();
    if (isRef(array.get())) {
        if (MatrixRefHandle* handle = handleOf(array.get())) {
            auto entry = t.find(handle->tag);
            if (entry && entry->isLocal() && handle->clientTarn != client) {
                // Sent on to another peer: a handle of its own, with a count of its own unless
                // it takes over the old handle's.
                auto* fresh = new MatrixRefHandle(handle->tag, handle->elementFlag != 0,
                                                  handle->elementIndex, client);
                hvSetOpaqueGiblet(array.get(), fresh);
                if (!dropSharer(handle))
                    t.addReference(fresh->tag);
                handle = fresh;
            }
            if (addReference)
                t.addReference(handle->tag);
        }
        return std::move(array);
    }
    HvArrayPtr ref(hvCreateOpaqueMatrix(theClass.load(), 1, 1));
    if (array) {
        RefTag tag = t.insertLocal(server, array);
        // Left in place only when the table already held this very array: it is the table's.
        (void)array.release();
        if (addReference)
            t.addReference(tag);
        hvSetOpaqueGiblet(ref.get(), new MatrixRefHandle(tag, false, 0, client));
    }
    return ref;
}

HvArrayPtr refGetRef(HvArrayPtr const& ref, bool release) {
    return getRef(ref.get(), release);
}

bool refIsRef(HvArrayPtr const& array) {
    return isRef(array.get());
}

bool refIsRef(hvArray_tag const* array) {
    return isRef(array);
}

bool refIsLocalRef(HvArrayPtr const& ref) {
    auto entry = entryOf(handleOf(ref.get()));
    return entry && entry->isLocal();
}

bool refIsRemoteRef(HvArrayPtr const& ref) {
    auto entry = entryOf(handleOf(ref.get()));
    return entry && !entry->isLocal();
}

bool refIsEmptyRef(HvArrayPtr const& ref) {
    return handleOf(ref.get()) == nullptr;
}

bool refIsElementIndexRef(HvArrayPtr const& ref) {
    MatrixRefHandle* handle = handleOf(ref.get());
    return handle && handle->elementFlag == 1;
}

HvArrayPtr refElementIndexRef(HvArrayPtr const& ref, std::size_t linearIndex) {
    MatrixRefHandle* handle = handleOf(ref.get());
    auto entry = entryOf(handle);
    if (!entry)
        return nullptr;
    TargetInfo info = describe(*entry);
    // An element reference stands for a 1-by-1 array: its one element is itself.
    std::size_t count = handle->elementFlag ? 1 : product(info.dims);
    if (!info.indexable || linearIndex >= count)
        return nullptr;
    if (requireTable().addReference(handle->tag) != handle->tag)
        return nullptr;
    std::uint64_t index = handle->elementFlag ? handle->elementIndex : linearIndex;
    return newRef(new MatrixRefHandle(handle->tag, true, index, handle->clientTarn));
}

HvArrayPtr refElementIndexRef(HvArrayPtr const& ref, std::size_t row, std::size_t column) {
    return refElementIndexRef(ref, std::vector<std::size_t>{row, column});
}

HvArrayPtr refElementIndexRef(HvArrayPtr const& ref, std::vector<std::size_t> const& subscripts) {
    std::vector<std::size_t> dims = refGetDimensions(ref);
    std::size_t linear = 0, stride = 1;
    for (std::size_t i = 0; i < dims.size() && i < subscripts.size(); ++i) {
        linear += stride * subscripts[i];
        stride *= dims[i];
    }
    return refElementIndexRef(ref, linear);
}

HvArrayPtr refCopyAndWrapArray(HvArrayPtr const& array, TarnID const& client,
                               TarnID const& server) {
    return copyDeep(array.get(), [&](hvArray_tag const* value) {
        HvArrayPtr copy(hvDuplicateArray(value));
        hvClassID cls = hvGetClassID(value);
        if (cls == hvFUNCTION_CLASS || cls == hvOPAQUE_CLASS)
            return refCreateRef(client, server, copy, true);
        return copy;
    });
}

HvArrayPtr refUnwrapAndCopyArray(HvArrayPtr const& array) {
    return copyDeep(array.get(), [](hvArray_tag const* value) {
        return isRef(value) ? getRef(value, false) : HvArrayPtr(hvDuplicateArray(value));
    });
}

HvArrayPtr refCopyAndConvertArray(HvArrayPtr& array, TarnID const& client, TarnID const& server,
                                  std::string& error) {
    if (!array)
        return nullptr;
    if (refNeedsRefOrStringConversion(array.get())) {
        if (!refConversionIsSupported(array.get())) {
            error = std::string("Data Conversion Error for type: ") + hvGetClassName(array.get());
            array.reset();
            return nullptr;
        }
        if (hvGetLink(array.get()))
            hvUnreference(array.get());
        hvUnshareShallowEx(array.get());
        if (hvHasRootRecord(array.get())) {
            hvUnrootArray(array.get());
            hvSetArrayScope(array.get(), hvSCOPE_TEMPORARY);
        }
        return refCreateRef(client, server, array, true);
    }
    hvClassID cls = hvGetClassID(array.get());
    if ((cls != hvCELL_CLASS && cls != hvSTRUCT_CLASS) || !hvDoesArrayContainObjects(array.get()))
        return std::move(array);
    hvUnreference(array.get());
    hvUnshareShallowEx(array.get());
    std::size_t slots = hvGetNumberOfElements(array.get());
    if (cls == hvSTRUCT_CLASS)
        slots *= hvGetNumberOfFields(array.get());
    for (std::size_t i = 0; i < slots; ++i) {
        if (!hvGetCell(array.get(), i))
            continue;
        HvArrayPtr element(hvTakeCell(array.get(), i));
        HvArrayPtr converted = refCopyAndConvertArray(element, client, server, error);
        if (!converted || !error.empty()) {
            array.reset();
            return nullptr;
        }
        hvSetCell(array.get(), i, converted.release());
    }
    return std::move(array);
}

HvArrayPtr refReleaseLocalRef(HvArrayPtr& ref) {
    MatrixRefHandle* handle = handleOf(ref.get());
    auto entry = entryOf(handle);
    if (!entry || !entry->isLocal())
        return std::move(ref);
    RefTag tag = handle->tag;
    bool element = handle->elementFlag != 0;
    std::uint64_t index = handle->elementIndex;
    bool handleWent = dropSharer(handle);
    hvSetOpaqueGiblet(ref.get(), nullptr);
    ref.reset();
    HvArrayPtr array = requireTable().takeArray(tag, handleWent);
    if (element)
        return extractElement(std::move(array), index);
    return array;
}

bool refConversionIsSupported(hvArray_tag const* array) {
    if (!table() || !array)
        return false;
    if (isRef(array))
        return true;
    return conversionSupported(array);
}

bool refNeedsRef(hvArrayType const& type) {
    static hvArrayType const needing[] = {hvOPAQUE_CLASS, hvOBJECT_CLASS, hvFUNCTION_CLASS};
    for (hvArrayType t : needing) {
        if (t == type)
            return true;
    }
    return false;
}

bool refNeedsRefOrStringConversion(hvArray_tag const* array) {
    if (!array || extstring::extstrIsExternalString(array))
        return false;
    return refNeedsRef(hvGetClassID(array));
}

bool refSrcIsA(HvArrayPtr const& ref, std::string const& className) {
    if (!isRef(ref.get()))
        return hvIsA(ref.get(), className.c_str());
    auto entry = entryOf(handleOf(ref.get()));
    if (!entry)
        return false;
    if (hvArray_tag const* array = entry->array())
        return hvIsA(array, className.c_str());
    return entry->remote()->className == className;
}

char const* refGetRefClassName(hvArray_tag const* const array) {
    if (!isRef(array))
        return hvGetClassName(array);
    auto entry = entryOf(handleOf(array));
    if (!entry)
        return nullptr;
    if (hvArray_tag const* target = entry->array())
        return hvGetClassName(target);
    return internName(entry->remote()->className);
}

std::string refGetClassname(HvArrayPtr const& ref) {
    char const* name = refGetRefClassName(ref.get());
    return name ? name : "";
}

std::vector<std::size_t> refGetDimensions(HvArrayPtr const& ref) {
    if (!ref)
        return {};
    if (!isRef(ref.get()))
        return dimsOf(ref.get());
    MatrixRefHandle* handle = handleOf(ref.get());
    if (handle && handle->elementFlag)
        return {1, 1};
    auto entry = entryOf(handle);
    return entry ? describe(*entry).dims : std::vector<std::size_t>();
}

hvArray_tag* refGetRefProperty(hvArray_tag const* const array, std::size_t index,
                               char const* name) {
    if (!isRef(array))
        return hvGetProperty(array, index, name);
    auto entry = entryOf(handleOf(array));
    hvArray_tag const* target = entry ? entry->array() : nullptr;
    return target ? hvGetProperty(target, index, name) : nullptr;
}

void refSetRefProperty(hvArray_tag* array, std::size_t index, char const* name,
                       hvArray_tag const* value) {
    if (!isRef(array)) {
        hvSetProperty(array, index, name, value);
        return;
    }
    auto entry = entryOf(handleOf(array));
    if (hvArray_tag* target = entry ? entry->array() : nullptr)
        hvSetProperty(target, index, name, value);
}

TarnID refLocalTarn(HvArrayPtr const& ref) {
    auto entry = entryOf(handleOf(ref.get()));
    return entry && entry->isLocal() ? entry->tarn : UndefinedTarnID;
}

namespace detail {

boost::shared_ptr<MatrixRefTable> refInitMatrixReferences(ElementFixup const& fixup,
                                                          ConversionSupported const& supported) {
    boost::call_once(initOnce, [&] { initialise(fixup, supported); });
    return holder.table;
}

boost::shared_ptr<MatrixRefTable> refTable() {
    return table() ? holder.table : boost::shared_ptr<MatrixRefTable>();
}

TarnID refFindTag(RefTag tag) {
    MatrixRefTable* t = table();
    if (tag == UndefinedRefTag || !t)
        return UndefinedTarnID;
    auto entry = t->find(tag);
    return entry && entry->isLocal() ? entry->tarn : UndefinedTarnID;
}

std::string refOpaqueClassName() {
    return ClassName;
}

void refSetClassIndex(int index) {
    classIndexValue.store(index);
}

void refRegisterExchange(TarnID const& tarn, std::string const& name) {
    if (MatrixRefTable* t = table())
        t->registerExchange(tarn, name);
}

void refReleaseExchange(TarnID const& tarn) {
    if (MatrixRefTable* t = table())
        t->releaseExchange(tarn);
}

void refReleaseServiceTag(RefTag tag) {
    if (MatrixRefTable* t = table())
        t->releaseServiceTag(tag);
}

void refClearAll(TarnID const& tarn) {
    MatrixRefTable* t = table();
    if (!t)
        return;
    if (tarn != UndefinedTarnID)
        t->clearTarn(tarn);
    else
        t->clearTable(false);
}

void refMetrics(int nlhs, hvArray_tag** plhs, int nrhs, hvArray_tag** prhs) {
    enum class Mode { Neither, Active, Total };
    Mode mode = Mode::Active;
    if (nrhs > 0) {
        mode = Mode::Neither;
        if (prhs && hvGetClassID(prhs[0]) == hvCHAR_CLASS) {
            std::string which = hvArrayToStdString(prhs[0]);
            if (which == "ActiveRefCount")
                mode = Mode::Active;
            else if (which == "TotalRefCount")
                mode = Mode::Total;
        }
    }
    double value = 0;
    if (MatrixRefTable* t = table()) {
        if (mode == Mode::Active)
            value = static_cast<double>(t->countActive(false));
        else if (mode == Mode::Total)
            value = static_cast<double>(t->countTotal(false));
    }
    if (nrhs > 0 && nlhs >= 0 && plhs)
        plhs[0] = hvCreateDoubleScalar(value);
}

} // namespace detail
} // namespace matrixref
} // namespace quorl
