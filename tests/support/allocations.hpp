// Counted, failing memory. Linked only into tests that name relay_test_allocations: it replaces operator new.
#ifndef TESTS_SUPPORT_ALLOCATIONS_HPP
#define TESTS_SUPPORT_ALLOCATIONS_HPP

namespace relay_test {

/// Calls of operator new on the calling thread so far.
long count_allocations();

/// The n-th operator new of the calling thread from now on throws std::bad_alloc; 0: none.
void fail_allocation(long nth);

/// While one lives on a thread, what the relay itself takes is counted apart: operator new outside of the host's
/// operations. With recording off and nothing scripted the harness takes nothing else.
class relay_section {
public:
    relay_section();
    ~relay_section();
    relay_section(relay_section const&) = delete;
    relay_section& operator=(relay_section const&) = delete;
};
long count_relay_allocations();
/// The n-th of them from now on throws std::bad_alloc; 0: none.
void fail_relay_allocation(long nth);

} // namespace relay_test

#endif
