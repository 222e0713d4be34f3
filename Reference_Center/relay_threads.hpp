// Which of the relay's threads run. Any thread.
#ifndef REFERENCE_CENTER_RELAY_THREADS_HPP
#define REFERENCE_CENTER_RELAY_THREADS_HPP

#include "Reference_Center/node_report.hpp"

#include <vector>

namespace Zolt::Reference_Center {

class relay_threads {
public:
    /// Before the relay is started: its threads get the host's next names, in the order in which it starts them.
    relay_threads();

    /// As the system lists the threads of this process now. One that ended, or could not be started, does not run.
    std::vector<thread_report> look() const;
    /// Waits until all of them have taken their names, or a second is over.
    void wait_for_all() const;

private:
    unsigned int first;
};

} // namespace Zolt::Reference_Center

#endif
