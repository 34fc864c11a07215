#ifndef VIDORA_OSTRA_FUNCTION_H
#define VIDORA_OSTRA_FUNCTION_H

#include <cstring>
#include <typeinfo>

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// Logs the call of an empty callback object, whose result is then a default value.
VIDORA_API void LogInvalidFunctionCall(unsigned int type, const char* type_name);

// TFunction: a copyable callback object that binds a member function to an object, or holds a plain function. It
// allocates nothing and borrows the object, which must outlive the calls. Two objects that hold the same binding are
// equal. Calling an empty one logs an error and returns a default value. A value, no lock: calls may run at once on
// several threads as far as the bound function allows.
template <typename R, typename... Args>
class TFunction {
public:
    TFunction() = default;

    // `member` may belong to a base of the object's class.
    template <typename D, typename T>
    TFunction(D* object, R (T::*member)(Args...))
        : m_object(static_cast<T*>(object)), m_call(&TFunction::call_member<T>) {
        static_assert(sizeof(member) <= sizeof(m_target), "member function pointer does not fit");
        std::memcpy(m_target, &member, sizeof(member));
        if (object == nullptr || member == nullptr) {
            *this = TFunction();
        }
    }

    TFunction(R (*function)(Args...)) : m_call(&TFunction::call_plain) {  // NOLINT: implicit on purpose
        std::memcpy(m_target, &function, sizeof(function));
        if (function == nullptr) {
            *this = TFunction();
        }
    }

    bool empty() const { return m_call == nullptr; }
    explicit operator bool() const { return !empty(); }

    R operator()(Args... args) const {
        if (m_call == nullptr) {
            LogInvalidFunctionCall(0, typeid(TFunction).name());
            return R();
        }
        return m_call(*this, static_cast<Args>(args)...);
    }

    bool operator==(const TFunction& other) const {
        return m_object == other.m_object && m_call == other.m_call &&
               std::memcmp(m_target, other.m_target, sizeof(m_target)) == 0;
    }
    bool operator!=(const TFunction& other) const { return !(*this == other); }

private:
    // Not inlined: GCC would see a small object whose class has no virtual function, and warn of the look-up of one
    // that a member function pointer may need and this one doesn't.
    template <typename T>
#if defined(__GNUC__)
    __attribute__((noinline))
#endif
    static R
    call_member(const TFunction& self, Args... args) {
        R (T::*member)(Args...) = nullptr;
        std::memcpy(&member, self.m_target, sizeof(member));
        return (static_cast<T*>(self.m_object)->*member)(static_cast<Args>(args)...);
    }

    static R call_plain(const TFunction& self, Args... args) {
        R (*function)(Args...) = nullptr;
        std::memcpy(&function, self.m_target, sizeof(function));
        return function(static_cast<Args>(args)...);
    }

    void* m_object = nullptr;
    unsigned char m_target[2 * sizeof(void*)] = {};  // a member function pointer of the Itanium ABI, or a function
    R (*m_call)(const TFunction&, Args...) = nullptr;
};

template <typename R, typename A1>
using TFunction1 = TFunction<R, A1>;
template <typename R, typename A1, typename A2>
using TFunction2 = TFunction<R, A1, A2>;
template <typename R, typename A1, typename A2, typename A3>
using TFunction3 = TFunction<R, A1, A2, A3>;

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_FUNCTION_H
