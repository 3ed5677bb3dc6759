// A library loaded at run time (dlopen), closed when the handle goes out of
// scope. For the closed decoder libraries the identity-card reader loads
// from the working directory.
#pragma once

#include <dlfcn.h>

#include <utility>

namespace kolt::support {

class DlHandle {
public:
    DlHandle() = default;
    // Loads path now (RTLD_NOW); an empty handle when it cannot be loaded.
    explicit DlHandle(const char* path, int flags = RTLD_NOW) : handle_(path ? ::dlopen(path, flags) : nullptr) {}
    ~DlHandle() { reset(); }
    DlHandle(DlHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    DlHandle& operator=(DlHandle&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    DlHandle(const DlHandle&) = delete;
    DlHandle& operator=(const DlHandle&) = delete;

    explicit operator bool() const { return handle_ != nullptr; }

    // The function of that name as a pointer of type F; nullptr when the
    // library is not loaded or has no such symbol.
    template <class F>
    F symbol(const char* name) const {
        if (handle_ == nullptr || name == nullptr) return nullptr;
        return reinterpret_cast<F>(::dlsym(handle_, name));
    }

    void reset() {
        if (handle_ != nullptr) ::dlclose(handle_);
        handle_ = nullptr;
    }

private:
    void* handle_ = nullptr;
};

}  // namespace kolt::support
