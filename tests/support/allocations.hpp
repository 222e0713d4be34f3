// Counted, failing memory. Linked only into tests that name relay_test_allocations: it replaces operator new.
#ifndef TESTS_SUPPORT_ALLOCATIONS_HPP
#define TESTS_SUPPORT_ALLOCATIONS_HPP

namespace relay_test {

/// Calls of operator new on the calling thread so far.
long count_allocations();

/// The n-th operator new of the calling thread from now on throws std::bad_alloc; 0: none.
void fail_allocation(long nth);

} // namespace relay_test

#endif
