#include <hv/hvarray.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace {

// Calls a method object, or constructs from a class array, with one input; null on failure.
HvArrayPtr call(const hvArray* method, const hvArray* input) {
    hvArray* out = nullptr;
    return hvCallMethod(method, 1, &out, 1, &input) ? HvArrayPtr(out) : nullptr;
}
HvArrayPtr construct(const hvArray* classArray, const hvArray* input) {
    hvArray* out = nullptr;
    return hvConstruct(classArray, 1, &out, 1, &input) ? HvArrayPtr(out) : nullptr;
}

// An opaque class whose giblet counts its sharers and holds a value that sets its size.
struct Counted {
    std::atomic<int> sharers{1};
    int value = 0;
};

std::atomic<int> liveGiblets{0};
const hvOpaqueClass* counterClass = nullptr;

hvArray* newCounted(int value) {
    auto* c = new Counted;
    c->value = value;
    liveGiblets.fetch_add(1);
    return hvCreateOpaqueGiblet(counterClass, c);
}

Counted* countedOf(const hvArray* a) {
    return static_cast<Counted*>(hvGetOpaqueGiblet(a));
}

class HvOpaque : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        hvOpaqueClassOps ops;
        // Mark 1: made by name; mark 2: the method object of "value".
        ops.createByName = [](const hvOpaqueClass* cls, const char*) {
            hvArray* a = hvCreateOpaqueMatrix(cls, 1, 1);
            hvSetOpaqueMark(a, 1);
            return a;
        };
        ops.findMethod = [](const hvArray*, const char* name) -> hvArray* {
            if (std::strcmp(name, "value") != 0) {
                return nullptr;
            }
            hvArray* m = hvCreateOpaqueMatrix(counterClass, 1, 1);
            hvSetOpaqueMark(m, 2);
            return m;
        };
        ops.callMethod = [](const hvArray* method, int nlhs, hvArray** plhs, int nrhs,
                            const hvArray* const* prhs) {
            if (hvGetOpaqueMark(method) != 2 || nrhs != 1 || nlhs != 1) {
                return false;
            }
            plhs[0] = hvCreateDoubleScalar(countedOf(prhs[0]) ? countedOf(prhs[0])->value : -1);
            return true;
        };
        ops.construct = [](const hvOpaqueClass*, int nlhs, hvArray** plhs, int nrhs,
                           const hvArray* const* prhs) {
            if (nlhs != 1) {
                return false;
            }
            plhs[0] = newCounted(nrhs > 0 ? static_cast<int>(hvGetScalar(prhs[0])) : 0);
            return true;
        };
        ops.share = [](void* giblet) {
            static_cast<Counted*>(giblet)->sharers.fetch_add(1);
            return giblet;
        };
        ops.destroy = [](void* giblet) {
            auto* c = static_cast<Counted*>(giblet);
            if (c->sharers.fetch_sub(1) == 1) {
                delete c;
                liveGiblets.fetch_sub(1);
            }
        };
        ops.updateSize = [](hvArray* a) {
            const std::size_t dims[] = {1, countedOf(a) ? std::size_t(countedOf(a)->value) : 0};
            hvSetDimensions(a, 2, dims);
        };
        ops.equal = [](const hvArray* a, const hvArray* b) {
            Counted *x = countedOf(a), *y = countedOf(b);
            return x == y || (x && y && x->value == y->value);
        };
        ops.isClassName = [](const char* name) {
            return std::strcmp(name, "test.CounterBase") == 0;
        };
        ops.classIndex = [] { return 40; };
        ops.classNameFromIndex = [](int index) { return index == 40 ? "test.Counter" : nullptr; };
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
        Counted* giblet = countedOf(a.get());
        HvArrayPtr b(hvCreateSharedDataCopy(a.get()));
        HvArrayPtr c(hvCreateSharedCopyNotOnArrayList(b.get()));
        EXPECT_EQ(giblet->sharers.load(), 3);
        EXPECT_EQ(countedOf(c.get()), giblet);
        HvArrayPtr cell(hvCreateCellMatrix(1, 1));
        hvSetCell(cell.get(), 0, b.release());
        HvArrayPtr cellCopy(hvDuplicateArray(cell.get()));
        EXPECT_EQ(giblet->sharers.load(), 4);
        EXPECT_TRUE(hvIsOpaqueOfClass(a.get(), counterClass));
        EXPECT_TRUE(hvDoesArrayContainObjects(cell.get()));
        EXPECT_STREQ(hvGetClassName(a.get()), "test.Counter");
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
    // Each size query runs on an array not sized before, so each must ask the class.
    HvArrayPtr a(newCounted(5));
    HvArrayPtr other(newCounted(6));
    EXPECT_EQ(hvGetInfo(a.get()).numberOfElements, 5u);
    EXPECT_EQ(hvGetN(other.get()), 6u);
    EXPECT_TRUE(hvAreMatricesEqual(a.get(), HvArrayPtr(newCounted(5)).get()));
    EXPECT_FALSE(hvAreMatricesEqual(a.get(), other.get()));

    HvArrayPtr method(hvFindMethod(a.get(), "value"));
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(hvFindMethod(a.get(), "nothing"), nullptr);
    HvArrayPtr value = call(method.get(), a.get());
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(hvGetScalar(value.get()), 5.0);
    // An array of the class that is not a method object (mark 2) cannot be called.
    EXPECT_EQ(call(a.get(), a.get()), nullptr);

    HvArrayPtr byName(hvCreateClassArray("test.Counter", 1, 1));
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(hvGetOpaqueMark(byName.get()), 1);
    HvArrayPtr seven(hvCreateDoubleScalar(7));
    HvArrayPtr made = construct(byName.get(), seven.get());
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(countedOf(made.get())->value, 7);

    HvArrayPtr element(hvSubscriptedReference(a.get(), 5));
    EXPECT_EQ(countedOf(element.get()), countedOf(a.get()));
    EXPECT_THROW(hvGetOpaqueGiblet(seven.get()), std::invalid_argument);
    EXPECT_EQ(hvGetOpaqueClass(seven.get()), nullptr);
}

// Registers an object class; the lists need only live for the call, which copies them.
void defineClass(const char* name, std::initializer_list<const char*> properties,
                 std::initializer_list<const char*> superclasses = {},
                 std::initializer_list<hvClassMethodDef> methods = {}, bool serializable = true) {
    hvClassDef def;
    def.name = name;
    def.properties = properties.begin();
    def.nproperties = properties.size();
    def.superclasses = superclasses.begin();
    def.nsuperclasses = superclasses.size();
    def.methods = methods.begin();
    def.nmethods = methods.size();
    def.serializable = serializable;
    hvDefineClass(def);
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

HvArrayPtr roundTrip(const hvArray* a) {
    HvArrayPtr bytes(hvSerialize(a));
    return HvArrayPtr(hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetN(bytes.get())));
}

TEST(HvObject, PropertiesMethodsInheritanceAndRoundTrips) {
    defineClass("test.Point", {"x", "y"}, {}, {{"norm2", &pointNorm}});
    EXPECT_THROW(defineClass("test.Point", {"x", "y"}, {}, {{"norm2", &pointNorm}}),
                 std::invalid_argument);
    defineClass("test.Point3", {"x", "y", "z"}, {"test.Point"});
    EXPECT_THROW(defineClass("test.Orphan", {}, {"test.Nothing"}), std::invalid_argument);

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
    EXPECT_TRUE(hvIsEmpty(HvArrayPtr(hvGetProperty(p.get(), 1, "z")).get()));

    // Value semantics: a copy that is written does not change the original.
    HvArrayPtr copy(hvCreateSharedDataCopy(p.get()));
    hvSetProperty(copy.get(), 0, "x", four.get());
    EXPECT_EQ(hvGetScalar(HvArrayPtr(hvGetProperty(p.get(), 0, "x")).get()), 3.0);

    // The inherited method is found through the superclass.
    HvArrayPtr norm(hvFindMethod(p.get(), "norm2"));
    ASSERT_NE(norm, nullptr);
    HvArrayPtr n2 = call(norm.get(), p.get());
    ASSERT_NE(n2, nullptr);
    EXPECT_EQ(hvGetScalar(n2.get()), 25.0);
    EXPECT_EQ(hvFindMethod(p.get(), "nothing"), nullptr);
    EXPECT_EQ(hvCreateClassArray("test.Undefined", 1, 1), nullptr);

    // Objects (here holding another object) and method handles survive serialization.
    HvArrayPtr label(hvCreateStringObject("x"));
    hvSetProperty(p.get(), 1, "z", label.get());
    HvArrayPtr back = roundTrip(p.get());
    EXPECT_TRUE(hvIsA(back.get(), "test.Point3"));
    EXPECT_TRUE(hvAreMatricesEqual(p.get(), back.get()));
    HvArrayPtr normBack = roundTrip(norm.get());
    n2 = call(normBack.get(), back.get());
    ASSERT_NE(n2, nullptr);
    EXPECT_EQ(hvGetScalar(n2.get()), 25.0);
}

TEST(HvObject, HandleObjectsShareTheirProperties) {
    defineClass("test.Handle", {"count"}, {"handle"}, {}, /*serializable=*/false);
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
    EXPECT_STREQ(hvGetClassName(s.get()), "string");
    EXPECT_EQ(hvGetStringElement(s.get(), 1), u"\u03b2");
    EXPECT_THROW(hvGetStringElement(s.get(), 2), std::out_of_range);

    HvArrayPtr cellstr(hvFindMethod(s.get(), "cellstr"));
    ASSERT_NE(cellstr, nullptr);
    HvArrayPtr cell = call(cellstr.get(), s.get());
    ASSERT_NE(cell, nullptr);
    EXPECT_EQ(hvGetClassID(cell.get()), hvCELL_CLASS);
    EXPECT_EQ(hvGetM(cell.get()), 2u);
    EXPECT_EQ(matrix::get_string(hvGetCell(cell.get(), 0)), "alpha");
    EXPECT_EQ(matrix::get_string(hvGetCell(cell.get(), 1)), "\xce\xb2");

    // Back through the constructor, from the cell.
    HvArrayPtr empty(hvCreateClassArray("string", 0, 0));
    ASSERT_NE(empty, nullptr);
    HvArrayPtr rebuilt = construct(empty.get(), cell.get());
    ASSERT_NE(rebuilt, nullptr);
    EXPECT_TRUE(hvAreMatricesEqual(rebuilt.get(), s.get()));
    EXPECT_EQ(construct(empty.get(), HvArrayPtr(hvCreateDoubleScalar(1)).get()), nullptr);
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

TEST(HvString, SetElementWritesOneCopyOnly) {
    const std::size_t dims[] = {1, 2};
    const char* texts[] = {"a", "b"};
    HvArrayPtr s(hvCreateStringObjectArray(2, dims, texts));
    HvArrayPtr shared(hvCreateSharedDataCopy(s.get()));
    hvSetStringElement(s.get(), 1, u"changed");
    EXPECT_EQ(hvGetStringElement(s.get(), 1), u"changed");
    EXPECT_EQ(hvGetStringElement(shared.get(), 1), u"b");
    EXPECT_THROW(hvSetStringElement(s.get(), 2, u"x"), std::out_of_range);
    HvArrayPtr d(hvCreateDoubleScalar(1));
    EXPECT_THROW(hvSetStringElement(d.get(), 0, u"x"), std::invalid_argument);
}

} // namespace
