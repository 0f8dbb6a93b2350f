#include <hv/hvarray.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>

namespace {

// An opaque class whose giblet counts its sharers, and whose operations record that they ran.
struct Counted {
    std::atomic<int> sharers{1};
    int value = 0;
};

std::atomic<int> liveGiblets{0};
std::atomic<int> updateSizeCalls{0};
const hvOpaqueClass* counterClass = nullptr;

void* shareCounted(void* giblet) {
    static_cast<Counted*>(giblet)->sharers.fetch_add(1);
    return giblet;
}

void destroyCounted(void* giblet) {
    auto* c = static_cast<Counted*>(giblet);
    if (c->sharers.fetch_sub(1) == 1) {
        delete c;
        liveGiblets.fetch_sub(1);
    }
}

hvArray* newCounted(int value) {
    auto* c = new Counted;
    c->value = value;
    liveGiblets.fetch_add(1);
    return hvCreateOpaqueGiblet(counterClass, c);
}

hvArray* createCountedByName(const hvOpaqueClass* cls, const char* name) {
    hvArray* a = hvCreateOpaqueMatrix(cls, 1, 1);
    hvSetOpaqueMark(a, 1);
    return a;
}

hvArray* findCountedMethod(const hvArray* object, const char* name) {
    if (std::strcmp(name, "value") != 0) {
        return nullptr;
    }
    hvArray* m = hvCreateOpaqueMatrix(counterClass, 1, 1);
    hvSetOpaqueMark(m, 2);
    return m;
}

bool callCountedMethod(const hvArray* method, int nlhs, hvArray** plhs, int nrhs,
                       const hvArray* const* prhs) {
    if (hvGetOpaqueMark(method) != 2 || nrhs != 1 || nlhs != 1) {
        return false;
    }
    auto* c = static_cast<Counted*>(hvGetOpaqueGiblet(prhs[0]));
    plhs[0] = hvCreateDoubleScalar(c ? c->value : -1);
    return true;
}

bool constructCounted(const hvOpaqueClass*, int nlhs, hvArray** plhs, int nrhs,
                      const hvArray* const* prhs) {
    if (nlhs != 1) {
        return false;
    }
    plhs[0] = newCounted(nrhs > 0 ? static_cast<int>(hvGetScalar(prhs[0])) : 0);
    return true;
}

void updateCountedSize(hvArray* a) {
    updateSizeCalls.fetch_add(1);
    auto* c = static_cast<Counted*>(hvGetOpaqueGiblet(a));
    const std::size_t dims[] = {1, c != nullptr ? static_cast<std::size_t>(c->value) : 0};
    hvSetDimensions(a, 2, dims);
}

bool equalCounted(const hvArray* a, const hvArray* b) {
    auto* x = static_cast<Counted*>(hvGetOpaqueGiblet(a));
    auto* y = static_cast<Counted*>(hvGetOpaqueGiblet(b));
    return x == y || (x && y && x->value == y->value);
}

bool isCountedName(const char* name) {
    return std::strcmp(name, "test.CounterBase") == 0;
}

int countedIndex() {
    return 40;
}
const char* countedNameFromIndex(int index) {
    return index == 40 ? "test.Counter" : nullptr;
}

class HvOpaque : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        hvOpaqueClassOps ops;
        ops.createByName = &createCountedByName;
        ops.findMethod = &findCountedMethod;
        ops.callMethod = &callCountedMethod;
        ops.construct = &constructCounted;
        ops.share = &shareCounted;
        ops.destroy = &destroyCounted;
        ops.updateSize = &updateCountedSize;
        ops.equal = &equalCounted;
        ops.isClassName = &isCountedName;
        ops.classIndex = &countedIndex;
        ops.classNameFromIndex = &countedNameFromIndex;
        counterClass = hvSubclassOpaqueArray("test.Counter", &ops);
        // Registering again with the same table is harmless; with another table it is not.
        EXPECT_EQ(hvSubclassOpaqueArray("test.Counter", &ops), counterClass);
        hvOpaqueClassOps other = ops;
        other.equal = nullptr;
        EXPECT_THROW(hvSubclassOpaqueArray("test.Counter", &other), std::invalid_argument);
    }
};

TEST_F(HvOpaque, SharingAndDestructionGoThroughTheClass) {
    ASSERT_EQ(hvFindOpaqueClass("test.Counter"), counterClass);
    {
        HvArrayPtr a(newCounted(3));
        auto* giblet = static_cast<Counted*>(hvGetOpaqueGiblet(a.get()));
        HvArrayPtr b(hvCreateSharedDataCopy(a.get()));
        HvArrayPtr c(hvCreateSharedCopyNotOnArrayList(b.get()));
        EXPECT_EQ(giblet->sharers.load(), 3);
        EXPECT_EQ(hvGetOpaqueGiblet(c.get()), giblet);
        HvArrayPtr cell(hvCreateCellMatrix(1, 1));
        hvSetCell(cell.get(), 0, b.release());
        HvArrayPtr cellCopy(hvDuplicateArray(cell.get()));
        EXPECT_EQ(giblet->sharers.load(), 4);
        EXPECT_TRUE(hvIsOpaqueOfClass(a.get(), counterClass));
        EXPECT_TRUE(hvDoesArrayContainObjects(cell.get()));
        EXPECT_STREQ(hvGetClassName(a.get()), "test.Counter");
        EXPECT_TRUE(hvIsA(a.get(), "test.Counter"));
        EXPECT_TRUE(hvIsA(a.get(), "test.CounterBase"));
        EXPECT_FALSE(hvIsA(a.get(), "double"));
        EXPECT_EQ(liveGiblets.load(), 1);
        EXPECT_EQ(hvGetOpaqueClassIndex(counterClass), 40);
        EXPECT_STREQ(hvGetClassNameFromIndex(40), "test.Counter");
        EXPECT_EQ(hvGetClassNameFromIndex(41), nullptr);
    }
    EXPECT_EQ(liveGiblets.load(), 0);
}

TEST_F(HvOpaque, SizeEqualityMethodsAndConstruction) {
    HvArrayPtr a(newCounted(5));
    int calls = updateSizeCalls.load();
    EXPECT_EQ(hvGetN(a.get()), 5u);
    EXPECT_GT(updateSizeCalls.load(), calls);
    EXPECT_EQ(hvGetInfo(a.get()).numberOfElements, 5u);

    HvArrayPtr same(newCounted(5));
    HvArrayPtr other(newCounted(6));
    EXPECT_TRUE(hvAreMatricesEqual(a.get(), same.get()));
    EXPECT_FALSE(hvAreMatricesEqual(a.get(), other.get()));

    HvArrayPtr method(hvFindMethod(a.get(), "value"));
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(hvFindMethod(a.get(), "nothing"), nullptr);
    hvArray* out = nullptr;
    const hvArray* in[] = {a.get()};
    ASSERT_TRUE(hvCallMethod(method.get(), 1, &out, 1, in));
    EXPECT_EQ(hvGetScalar(HvArrayPtr(out).get()), 5.0);
    // A method object of a class that is not the mark the class expects fails.
    EXPECT_FALSE(hvCallMethod(a.get(), 1, &out, 1, in));

    HvArrayPtr byName(hvCreateClassArray("test.Counter", 1, 1));
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(hvGetOpaqueMark(byName.get()), 1);
    HvArrayPtr seven(hvCreateDoubleScalar(7));
    const hvArray* args[] = {seven.get()};
    hvArray* made = nullptr;
    ASSERT_TRUE(hvConstruct(byName.get(), 1, &made, 1, args));
    HvArrayPtr madePtr(made);
    EXPECT_EQ(static_cast<Counted*>(hvGetOpaqueGiblet(made))->value, 7);

    HvArrayPtr element(hvSubscriptedReference(a.get(), 5));
    EXPECT_EQ(hvGetOpaqueGiblet(element.get()), hvGetOpaqueGiblet(a.get()));
    EXPECT_THROW(hvGetOpaqueGiblet(seven.get()), std::invalid_argument);
    EXPECT_EQ(hvGetOpaqueClass(seven.get()), nullptr);
}

bool pointNorm(int nlhs, hvArray** plhs, int nrhs, const hvArray* const* prhs) {
    if (nrhs != 1 || nlhs != 1) {
        return false;
    }
    HvArrayPtr x(hvGetProperty(prhs[0], 0, "x"));
    HvArrayPtr y(hvGetProperty(prhs[0], 0, "y"));
    double a = hvGetScalar(x.get()), b = hvGetScalar(y.get());
    plhs[0] = hvCreateDoubleScalar(a * a + b * b);
    return true;
}

TEST(HvObject, PropertiesMethodsAndInheritance) {
    const char* props[] = {"x", "y"};
    hvClassMethodDef methods[] = {{"norm2", &pointNorm}};
    hvClassDef point;
    point.name = "test.Point";
    point.properties = props;
    point.nproperties = 2;
    point.methods = methods;
    point.nmethods = 1;
    hvDefineClass(point);
    EXPECT_THROW(hvDefineClass(point), std::invalid_argument);

    const char* supers[] = {"test.Point"};
    const char* moreProps[] = {"x", "y", "z"};
    hvClassDef point3 = point;
    point3.name = "test.Point3";
    point3.superclasses = supers;
    point3.nsuperclasses = 1;
    point3.properties = moreProps;
    point3.nproperties = 3;
    point3.methods = nullptr;
    point3.nmethods = 0;
    hvDefineClass(point3);
    const char* unknown[] = {"test.Nothing"};
    hvClassDef orphan;
    orphan.name = "test.Orphan";
    orphan.superclasses = unknown;
    orphan.nsuperclasses = 1;
    EXPECT_THROW(hvDefineClass(orphan), std::invalid_argument);

    HvArrayPtr p(hvCreateClassArray("test.Point3", 1, 2));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(hvGetClassID(p.get()), hvOBJECT_CLASS);
    EXPECT_TRUE(hvIsA(p.get(), "test.Point3"));
    EXPECT_TRUE(hvIsA(p.get(), "test.Point"));
    EXPECT_FALSE(hvIsA(p.get(), "handle"));
    HvArrayPtr three(hvCreateDoubleScalar(3));
    HvArrayPtr four(hvCreateDoubleScalar(4));
    hvSetProperty(p.get(), 0, "x", three.get());
    hvSetProperty(p.get(), 0, "y", four.get());
    EXPECT_THROW(hvSetProperty(p.get(), 0, "w", three.get()), std::invalid_argument);
    EXPECT_THROW(hvSetProperty(p.get(), 2, "x", three.get()), std::out_of_range);
    EXPECT_EQ(hvGetProperty(p.get(), 0, "w"), nullptr);
    HvArrayPtr emptyZ(hvGetProperty(p.get(), 1, "z"));
    ASSERT_NE(emptyZ, nullptr);
    EXPECT_TRUE(hvIsEmpty(emptyZ.get()));

    // Value semantics: a copy that is written does not change the original.
    HvArrayPtr copy(hvCreateSharedDataCopy(p.get()));
    hvSetProperty(copy.get(), 0, "x", four.get());
    EXPECT_EQ(hvGetScalar(HvArrayPtr(hvGetProperty(p.get(), 0, "x")).get()), 3.0);

    // The inherited method is found through the superclass.
    HvArrayPtr norm(hvFindMethod(p.get(), "norm2"));
    ASSERT_NE(norm, nullptr);
    hvArray* out = nullptr;
    const hvArray* in[] = {p.get()};
    ASSERT_TRUE(hvCallMethod(norm.get(), 1, &out, 1, in));
    EXPECT_EQ(hvGetScalar(HvArrayPtr(out).get()), 25.0);
    EXPECT_EQ(hvFindMethod(p.get(), "nothing"), nullptr);
    EXPECT_EQ(hvCreateClassArray("test.Undefined", 1, 1), nullptr);
}

TEST(HvObject, HandleObjectsShareTheirProperties) {
    const char* props[] = {"count"};
    const char* supers[] = {"handle"};
    hvClassDef def;
    def.name = "test.Handle";
    def.properties = props;
    def.nproperties = 1;
    def.superclasses = supers;
    def.nsuperclasses = 1;
    def.serializable = false;
    hvDefineClass(def);
    HvArrayPtr h(hvCreateClassArray("test.Handle", 1, 1));
    HvArrayPtr alias(hvCreateSharedDataCopy(h.get()));
    HvArrayPtr nine(hvCreateDoubleScalar(9));
    hvSetProperty(alias.get(), 0, "count", nine.get());
    EXPECT_EQ(hvGetScalar(HvArrayPtr(hvGetProperty(h.get(), 0, "count")).get()), 9.0);
    EXPECT_TRUE(hvIsA(h.get(), "handle"));
    EXPECT_THROW(hvSerialize(h.get()), std::runtime_error);
}

TEST(HvString, CellstrConstructionAndAvailability) {
    ASSERT_TRUE(hvIsStringClassAvailable());
    const std::size_t dims[] = {2, 1};
    const char* texts[] = {"alpha", "\xce\xb2"};
    HvArrayPtr s(hvCreateStringObjectArray(2, dims, texts));
    EXPECT_TRUE(hvIsA(s.get(), "string"));
    EXPECT_STREQ(hvGetClassName(s.get()), "string");
    EXPECT_EQ(hvGetStringElement(s.get(), 1), u"\u03b2");
    EXPECT_THROW(hvGetStringElement(s.get(), 2), std::out_of_range);

    HvArrayPtr cellstr(hvFindMethod(s.get(), "cellstr"));
    ASSERT_NE(cellstr, nullptr);
    hvArray* out = nullptr;
    const hvArray* in[] = {s.get()};
    ASSERT_TRUE(hvCallMethod(cellstr.get(), 1, &out, 1, in));
    HvArrayPtr cell(out);
    EXPECT_EQ(hvGetClassID(cell.get()), hvCELL_CLASS);
    EXPECT_EQ(hvGetM(cell.get()), 2u);
    EXPECT_EQ(matrix::get_string(hvGetCell(cell.get(), 0)), "alpha");
    EXPECT_EQ(matrix::get_string(hvGetCell(cell.get(), 1)), "\xce\xb2");

    // Back through the constructor, from the cell.
    HvArrayPtr empty(hvCreateClassArray("string", 0, 0));
    ASSERT_NE(empty, nullptr);
    hvArray* rebuilt = nullptr;
    const hvArray* args[] = {cell.get()};
    ASSERT_TRUE(hvConstruct(empty.get(), 1, &rebuilt, 1, args));
    HvArrayPtr rebuiltPtr(rebuilt);
    EXPECT_TRUE(hvAreMatricesEqual(rebuilt, s.get()));
    HvArrayPtr number(hvCreateDoubleScalar(1));
    const hvArray* bad[] = {number.get()};
    EXPECT_FALSE(hvConstruct(empty.get(), 1, &rebuilt, 1, bad));
    EXPECT_EQ(hvArrayToStdString(HvArrayPtr(hvCreateStringObject("one")).get()), "one");

    HvArrayPtr bytes(hvSerialize(s.get()));
    hvSetStringClassAvailable(false);
    EXPECT_EQ(hvCreateClassArray("string", 1, 1), nullptr);
    EXPECT_FALSE(hvIsClassDefined("string"));
    EXPECT_THROW(hvCreateStringObject("x"), std::runtime_error);
    EXPECT_THROW(hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetN(bytes.get())),
                 std::runtime_error);
    // Arrays made before the switch stay usable.
    EXPECT_EQ(hvGetStringElement(s.get(), 0), u"alpha");
    hvSetStringClassAvailable(true);
    HvArrayPtr back(hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetN(bytes.get())));
    EXPECT_TRUE(hvAreMatricesEqual(back.get(), s.get()));
}

} // namespace
