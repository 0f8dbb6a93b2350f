#pragma once
// cppmicroservices::Any: a copyable value of any type, as held in bundle and service properties,
// with a text form. Copies share the immutable held value. Any thread may read it. any_cast to a
// type other than the held one raises std::bad_cast.
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace cppmicroservices {

class Any {
public:
    Any() = default;
    template <class T, class = std::enable_if_t<!std::is_same<std::decay_t<T>, Any>::value>>
    Any(T&& value) : holder_(std::make_shared<Holder<std::decay_t<T>>>(std::forward<T>(value))) {}
    Any(const char* value) : Any(std::string(value)) {}

    bool Empty() const { return !holder_; }
    const std::type_info& Type() const { return holder_ ? holder_->type() : typeid(void); }
    // The value as text: strings as they are, numbers and bools in their usual form, other types
    // by their type name; an empty Any gives "".
    std::string ToString() const { return holder_ ? holder_->toString() : std::string(); }

    template <class T> friend const T* any_cast(const Any* any);

private:
    struct HolderBase {
        virtual ~HolderBase() = default;
        virtual const std::type_info& type() const = 0;
        virtual std::string toString() const = 0;
    };
    template <class T> struct Holder : HolderBase {
        template <class U> explicit Holder(U&& v) : value(std::forward<U>(v)) {}
        const std::type_info& type() const override { return typeid(T); }
        std::string toString() const override {
            if constexpr (std::is_same<T, std::string>::value) {
                return value;
            } else if constexpr (std::is_same<T, bool>::value) {
                return value ? "true" : "false";
            } else if constexpr (std::is_arithmetic<T>::value) {
                std::ostringstream os;
                os << value;
                return os.str();
            } else {
                return typeid(T).name();
            }
        }
        T value;
    };

    std::shared_ptr<const HolderBase> holder_;
};

template <class T> const T* any_cast(const Any* any) {
    if (!any || any->Type() != typeid(T)) {
        return nullptr;
    }
    return &static_cast<const Any::Holder<T>&>(*any->holder_).value;
}

template <class T> T any_cast(const Any& any) {
    auto p = any_cast<std::decay_t<T>>(&any);
    if (!p) {
        throw std::bad_cast();
    }
    return *p;
}

} // namespace cppmicroservices
