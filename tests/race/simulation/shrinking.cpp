#include "tests/race/simulation/shrinking.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace simulation {
namespace {

/// What a process of schedules tells its parent, also when it dies.
struct shared_report {
    std::uint64_t running = 0; ///< index of the schedule that runs
    campaign done;
    switch_log log;
};

/// Memory that parent and child both see.
class shared_memory {
public:
    shared_memory()
        : report(static_cast<shared_report*>(
              ::mmap(nullptr, sizeof(shared_report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (report == MAP_FAILED) {
            std::perror("mmap");
            std::exit(2);
        }
        new (report) shared_report;
    }
    ~shared_memory() { ::munmap(report, sizeof *report); }
    shared_memory(shared_memory const&) = delete;
    shared_memory& operator=(shared_memory const&) = delete;
    shared_report* operator->() const { return report; }

private:
    shared_report* report;
};

void silence() {
    // Not by the calls that this program answers itself.
    if (std::freopen("/dev/null", "w", stderr) == nullptr) {
        ::_exit(2);
    }
}

void stay_on_core(std::uint64_t index) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(index % static_cast<std::uint64_t>(::sysconf(_SC_NPROCESSORS_ONLN)), &cores);
    ::sched_setaffinity(0, sizeof cores, &cores);
}

void run_one(run_request const& request, shared_memory const& shared) {
    outcome const result = run_schedule(request.how, request.what->run);
    ++shared->done.schedules;
    shared->done.points += result.points;
    shared->done.switches += result.switches;
}

/// Waits for a child; true when it ended well.
bool has_ended_well(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// True when the schedule fails. Nothing is shown unless it is being told.
bool fails(run_request const& request, shared_memory const& shared) {
    pid_t const child = ::fork();
    if (child == 0) {
        if (!request.how.tells) {
            silence();
        }
        stay_on_core(0);
        write_switches_to(&shared->log);
        run_one(request, shared);
        ::_exit(0);
    }
    return !has_ended_well(child);
}

/// The list without one of its parts, for each part in turn, as long as it still fails; then with smaller parts.
std::vector<switch_over> shorten(run_request request, std::vector<switch_over> switches, shared_memory const& shared) {
    std::size_t part = std::max<std::size_t>(1, switches.size() / 2);
    for (;;) {
        bool is_shorter = false;
        for (std::size_t from = 0; from < switches.size();) {
            std::size_t const to = std::min(switches.size(), from + part);
            std::vector<switch_over> fewer(switches.begin(), switches.begin() + static_cast<std::ptrdiff_t>(from));
            fewer.insert(fewer.end(), switches.begin() + static_cast<std::ptrdiff_t>(to), switches.end());
            request.how.switches = fewer;
            if (fails(request, shared)) {
                switches = std::move(fewer);
                is_shorter = true;
            } else {
                from = to;
            }
        }
        if (part == 1 && !is_shorter) {
            return switches;
        }
        part = std::max<std::size_t>(1, part / 2);
    }
}

void add(campaign& sum, campaign const& part) {
    sum.schedules += part.schedules;
    sum.points += part.points;
    sum.switches += part.switches;
}

} // namespace

campaign run_campaign(std::function<run_request(std::uint64_t)> const& at, std::uint64_t count, std::uint64_t jobs) {
    std::vector<shared_memory> reports(jobs);
    std::vector<pid_t> children;
    for (std::uint64_t job = 0; job < jobs; ++job) {
        pid_t const child = ::fork();
        if (child == 0) {
            stay_on_core(job);
            for (std::uint64_t index = job; index < count; index += jobs) {
                reports[job]->running = index;
                run_one(at(index), reports[job]);
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    campaign sum;
    for (std::uint64_t job = 0; job < jobs; ++job) {
        bool const is_well = has_ended_well(children[job]);
        add(sum, reports[job]->done);
        if (!is_well) {
            ++sum.failed;
            sum.first_failed = std::min(sum.first_failed.value_or(reports[job]->running), reports[job]->running);
        }
    }
    return sum;
}

void report_shortest(run_request const& failing, std::uint64_t seed) {
    shared_memory const shared;
    std::fprintf(stderr, "repeat it with: --scenario %s --strategy %s --seed %llu --tell\n", failing.what->name,
                 failing.strategy_name, static_cast<unsigned long long>(seed));
    run_request request = failing;
    request.how.tells = false;
    if (!fails(request, shared)) {
        std::fprintf(stderr, "it does not fail when it is run alone: the schedules before it left something behind\n");
        return;
    }
    std::size_t const count = std::min<std::size_t>(shared->log.count, shared->log.switches.size());
    std::vector<switch_over> const original(shared->log.switches.begin(),
                                            shared->log.switches.begin() + static_cast<std::ptrdiff_t>(count));
    request.how.how = strategy::replay;
    request.how.switches = original;
    if (!fails(request, shared)) {
        std::fprintf(stderr, "its %zu switches alone do not make it fail\n", count);
        return;
    }
    request.how.switches = shorten(request, original, shared);
    std::fprintf(stderr, "%zu of %zu switches are enough:", request.how.switches.size(), count);
    for (switch_over const& one : request.how.switches) {
        std::fprintf(stderr, " %llu:%d", static_cast<unsigned long long>(one.point), one.actor);
    }
    std::fprintf(stderr, "\nits story:\n");
    request.how.tells = true;
    fails(request, shared);
}

} // namespace simulation
