// The library's own nothrow form need not pass through an operator new that the program replaces.
#include <new>

void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    try {
        return operator new(size);
    } catch (std::bad_alloc const&) {
        return nullptr;
    }
}
