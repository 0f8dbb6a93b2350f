#pragma once
// TypeInformation: the run-time type record of an event type, shared by all its events: the
// type names of its chain (most derived first, ending at BaseEvent) and the user tags.
// Immutable once made: adding tags makes a copy (withTags). Safe to share between threads.
//
// DerivedTypeInformation<T> is the record of event type T; one instance per type, made at first
// use and never destroyed, so that events made while the process exits (a peer failing during
// static destruction) still find it. An event type T declares
//   typedef <its base event type> EventBaseType;    // BaseEvent declares void
//   static ustring eventTypeName();                 // T's own name
// and may declare `bool fieldsEqual(T const&) const` to compare its own fields (equality of
// events is type, user tags and fields).
#include <fl/i18n/ustring.hpp>

#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>
#include <boost/range/iterator_range.hpp>
#include <boost/shared_ptr.hpp>

#include <stdexcept>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

class BaseEvent;

// Marker base: events of a type deriving from it never carry user tags.
class NoUserEventTags {};

typedef std::vector<ustring> TagVector;
typedef TagVector::const_iterator TagIterator;
typedef boost::iterator_range<TagIterator> TagRange;

class TypeInformation : public boost::enable_shared_from_this<TypeInformation> {
public:
    virtual ~TypeInformation();
    virtual bool isType(std::type_info const& type) const = 0;
    // The user tags followed by the type names.
    virtual TagRange getTags() const;
    // The type names, most derived first.
    virtual TagRange getTypeNames() const = 0;
    // Same dynamic type and same user tags.
    virtual bool equals(TypeInformation const& other) const;
    virtual bool eventsEqual(BaseEvent const& a, BaseEvent const& b) const = 0;
    virtual bool allowsUserTags() const = 0;

    TagRange getUserTags() const { return TagRange(userTags_.begin(), userTags_.end()); }
    bool hasTag(ustring const& tag) const;

    // A copy with `tags` added. With user tags allowed they are appended; otherwise each must
    // be one of the type names, else std::runtime_error "cannot add user tags.".
    boost::shared_ptr<TypeInformation> withTags(TagIterator begin, TagIterator end) const;

protected:
    TypeInformation() = default;
    TypeInformation(TypeInformation const&) = default;
    virtual TypeInformation* copy() const = 0;
    // Rebuilds allTags_ from the user tags and the type names.
    void refreshTags();

private:
    TagVector userTags_;
    TagVector allTags_;
};

namespace detail {

// The chain of names of T: T's own, then its base's chain.
template <class T> struct TypeNameChain {
    static TagVector make() {
        TagVector names{T::eventTypeName()};
        TagVector const& base = TypeNameChain<typename T::EventBaseType>::names();
        names.insert(names.end(), base.begin(), base.end());
        return names;
    }
    // Never destroyed: see DerivedTypeInformation::instance.
    static TagVector const& names() {
        static TagVector const* const n = new TagVector(make());
        return *n;
    }
};

template <> struct TypeNameChain<void> {
    static TagVector const& names() {
        static TagVector const* const n = new TagVector;
        return *n;
    }
};

template <class T, class = void> struct HasFieldsEqual : std::false_type {};
template <class T>
struct HasFieldsEqual<T, decltype(void(std::declval<T const&>().fieldsEqual(
                             std::declval<T const&>())))> : std::true_type {};

template <class T> bool eventFieldsEqual(T const& a, T const& b, std::true_type) {
    return a.fieldsEqual(b);
}
template <class T> bool eventFieldsEqual(T const&, T const&, std::false_type) {
    return true;
}

template <class T> class DerivedTypeInformation : public TypeInformation {
public:
    // The one record of T, made at first use and deliberately never freed: a function-local
    // static would be destroyed at exit while other threads may still make events of T.
    static boost::shared_ptr<TypeInformation> const& instance() {
        static boost::shared_ptr<TypeInformation> const* const info = [] {
            boost::shared_ptr<DerivedTypeInformation> p(new DerivedTypeInformation);
            p->refreshTags();
            return new boost::shared_ptr<TypeInformation>(p);
        }();
        return *info;
    }

    bool isType(std::type_info const& type) const override { return type == typeid(T); }
    TagRange getTypeNames() const override {
        TagVector const& n = TypeNameChain<T>::names();
        return TagRange(n.begin(), n.end());
    }
    bool equals(TypeInformation const& other) const override {
        return typeid(other) == typeid(*this) && TypeInformation::equals(other);
    }
    bool eventsEqual(BaseEvent const& a, BaseEvent const& b) const override {
        return eventFieldsEqual(static_cast<T const&>(a), static_cast<T const&>(b),
                                HasFieldsEqual<T>());
    }
    bool allowsUserTags() const override { return !std::is_base_of<NoUserEventTags, T>::value; }

    // The name at `index` of T's chain; past the chain's end std::out_of_range.
    static ustring const& typeName(std::size_t index) {
        TagVector const& n = TypeNameChain<T>::names();
        if (index >= n.size())
            throw std::out_of_range("eventmgr::BaseEvent has no base types.");
        return n[index];
    }

protected:
    TypeInformation* copy() const override { return new DerivedTypeInformation(*this); }

private:
    DerivedTypeInformation() = default;
    DerivedTypeInformation(DerivedTypeInformation const&) = default;
};

} // namespace detail

// The type information of event type T.
template <class T> boost::shared_ptr<TypeInformation> const& typeInformationOf() {
    return detail::DerivedTypeInformation<T>::instance();
}

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
