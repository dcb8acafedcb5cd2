// Runs every row of the speed table and prints it. An idle second thread is
// started before anything else, so glibc and the mutexes take the paths
// they take in a multi-threaded host. Times are this thread's CPU time, so
// other load on the machine costs little; each row's ratio is the median
// of its per-round ratios over five rounds, in which ours and the peer run
// back to back.
//
// Instructions per operation come from a separate run under callgrind
// (--count, below): a count does not move with the machine's load, so a
// regression shows even where the nanoseconds are noise.
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <pthread.h>
#include <sstream>
#include <thread>
#include <utility>

#include "speed_table.h"

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define SPEED_HAVE_CALLGRIND 1
#endif

namespace speed {
namespace {

constexpr int kRounds = 5;
constexpr double kSecondsPerRun = 0.02;

double thread_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double seconds_of(const Work& work, size_t ops) {
    const double start = thread_seconds();
    work(ops);
    return thread_seconds() - start;
}

// Operations that keep one run busy for about kSecondsPerRun.
size_t calibrate(const Work& work) {
    size_t ops = 1;
    work(ops);  // warm-up
    double seconds = seconds_of(work, ops);
    while (seconds < kSecondsPerRun / 10) {
        ops *= 2;
        seconds = seconds_of(work, ops);
    }
    return std::max<size_t>(1, static_cast<size_t>(static_cast<double>(ops) * kSecondsPerRun / seconds));
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Blocks until the table is done: a thread that exists and does nothing.
class IdleThread {
public:
    IdleThread()
        : thread_([this] {
              std::unique_lock<std::mutex> hold(mutex_);
              done_changed_.wait(hold, [this] { return done_; });
          }) {}
    ~IdleThread() {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            done_ = true;
        }
        done_changed_.notify_one();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable done_changed_;
    bool done_ = false;
    std::thread thread_;
};

struct Result {
    double ours_ns, peer_ns, ratio;
    double floor_ns, floor_ratio;  // 0 for a row without a floor
};

std::vector<Result> measure(const std::vector<Row>& rows) {
    std::vector<size_t> ours_ops, peer_ops, floor_ops;
    for (const Row& row : rows) {
        ours_ops.push_back(calibrate(row.ours));
        peer_ops.push_back(calibrate(row.peer));
        floor_ops.push_back(row.floor ? calibrate(row.floor) : 0);
    }
    const size_t n = rows.size();
    std::vector<std::vector<double>> ours(n), peer(n), ratio(n), floor(n), floor_ratio(n);
    for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < n; ++i) {
            const double ours_ns = seconds_of(rows[i].ours, ours_ops[i]) * 1e9 / static_cast<double>(ours_ops[i]);
            const double peer_ns = seconds_of(rows[i].peer, peer_ops[i]) * 1e9 / static_cast<double>(peer_ops[i]);
            ours[i].push_back(ours_ns);
            peer[i].push_back(peer_ns);
            ratio[i].push_back(ours_ns / peer_ns);
            if (rows[i].floor) {
                const double floor_ns =
                    seconds_of(rows[i].floor, floor_ops[i]) * 1e9 / static_cast<double>(floor_ops[i]);
                floor[i].push_back(floor_ns);
                floor_ratio[i].push_back(floor_ns / peer_ns);
            }
        }
    }
    std::vector<Result> results;
    for (size_t i = 0; i < n; ++i) {
        const bool has_floor = !floor[i].empty();
        results.push_back({median(ours[i]), median(peer[i]), median(ratio[i]), has_floor ? median(floor[i]) : 0,
                           has_floor ? median(floor_ratio[i]) : 0});
    }
    return results;
}

// Where a row's floor alone is above its goal, the row is held to this
// multiple of its floor instead.
constexpr double kFloorAllowance = 1.2;

double goal_of(const Row& row, const Result& result) {
    return row.floor && result.floor_ratio > row.goal ? kFloorAllowance * result.floor_ratio : row.goal;
}

// Instructions per operation by (contender, work), as tools/speed_table.sh
// writes them from a --count run: "contender<TAB>instructions<TAB>work".
using Counts = std::map<std::pair<std::string, std::string>, double>;

Counts read_counts(const char* path) {
    Counts counts;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string contender, instructions, work;
        if (std::getline(fields, contender, '\t') && std::getline(fields, instructions, '\t') &&
            std::getline(fields, work)) {
            counts[{contender, work}] = std::stod(instructions);
        }
    }
    return counts;
}

std::string count_of(const Counts& counts, const char* contender, const Row& row) {
    const auto found = counts.find({contender, row.work});
    if (found == counts.end()) return "";
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", found->second);
    return text;
}

void print(const std::vector<Row>& rows, const std::vector<Result>& results, const Counts& counts) {
    const char* arch = sizeof(void*) == 8 ? "x86-64" : "i386 (-m32)";
    std::printf("libcorvex speed table, %s: ns per operation in thread CPU time, ratio = libcorvex / peer\n"
                "(median of %d rounds, an idle second thread running); instr: instructions per operation\n"
                "(callgrind); floor: the part of the work the design fixes, timed alone in the same rounds;\n"
                "a goal below the floor ratio becomes %.1fx the floor ratio\n\n",
                arch, kRounds, kFloorAllowance);
    std::printf("| Work | libcorvex ns | libcorvex instr | Peer | Peer ns | Peer instr | Ratio | Goal | Met "
                "| Floor | Floor ns | Floor instr | Floor ratio |\n");
    std::printf("|---|---:|---:|---|---:|---:|---:|---:|---|---|---:|---:|---:|\n");
    int met_count = 0, raised = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        const Result& result = results[i];
        const double goal = goal_of(row, result);
        const bool met = result.ratio <= goal;
        met_count += met ? 1 : 0;
        char goal_text[48];
        if (goal != row.goal) {
            ++raised;
            std::snprintf(goal_text, sizeof goal_text, "%.2f (%.1f raised)", goal, row.goal);
        } else {
            std::snprintf(goal_text, sizeof goal_text, "%.1f", goal);
        }
        std::printf("| %s | %.1f | %s | %s | %.1f | %s | %.2f | %s | %s |", row.work.c_str(), result.ours_ns,
                    count_of(counts, "ours", row).c_str(), row.peer_name.c_str(), result.peer_ns,
                    count_of(counts, "peer", row).c_str(), result.ratio, goal_text, met ? "yes" : "no");
        if (row.floor) {
            std::printf(" %s | %.1f | %s | %.2f |\n", row.floor_name.c_str(), result.floor_ns,
                        count_of(counts, "floor", row).c_str(), result.floor_ratio);
        } else {
            std::printf(" none | | | |\n");
        }
    }
    std::printf("\n%d of %zu goals met; %d raised to %.1fx a floor that alone is above the goal\n", met_count,
                rows.size(), raised, kFloorAllowance);
}

// Run under callgrind with collection off (--collect-atstart=no): each
// contender of each row runs kCountedOps operations to warm up, then as many
// again with collection on, and the count is dumped under the label
// "<contender> <operations> <work>". tools/speed_table.sh reads the dumps.
constexpr size_t kCountedOps = 1000;

int count_instructions(const std::vector<Row>& rows) {
#ifdef SPEED_HAVE_CALLGRIND
    if (!RUNNING_ON_VALGRIND) {
        std::fprintf(stderr, "speed_table: --count runs under valgrind --tool=callgrind --collect-atstart=no\n");
        return 2;
    }
    for (const Row& row : rows) {
        const std::pair<const char*, const Work*> contenders[] = {
            {"ours", &row.ours}, {"peer", &row.peer}, {"floor", &row.floor}};
        for (const auto& [contender, work] : contenders) {
            if (!*work) continue;
            (*work)(kCountedOps);
            CALLGRIND_TOGGLE_COLLECT;
            (*work)(kCountedOps);
            CALLGRIND_TOGGLE_COLLECT;
            const std::string label = std::string(contender) + " " + std::to_string(kCountedOps) + " " + row.work;
            CALLGRIND_DUMP_STATS_AT(label.c_str());
        }
    }
    return 0;
#else
    (void)rows;
    std::fprintf(stderr, "speed_table: built without valgrind/callgrind.h, so it cannot count instructions\n");
    return 2;
#endif
}

}  // namespace

void lock_round_trips(size_t count) {
    static pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    for (size_t i = 0; i < count; ++i) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}

}  // namespace speed

// Usage: speed_table [--count | --instructions FILE] [TEXT]
//   --count              count instructions under callgrind instead of timing
//   --instructions FILE  the counts of a --count run, for the instr columns
//   TEXT                 only the rows whose work contains TEXT (e.g. to
//                        profile one of them)
int main(int argc, char** argv) {
    bool count = false;
    speed::Counts counts;
    int arg = 1;
    if (arg < argc && std::strcmp(argv[arg], "--count") == 0) {
        count = true;
        ++arg;
    } else if (arg + 1 < argc && std::strcmp(argv[arg], "--instructions") == 0) {
        counts = speed::read_counts(argv[arg + 1]);
        arg += 2;
    }
    const char* only = arg < argc ? argv[arg] : nullptr;
    speed::IdleThread idle;
    std::vector<speed::Row> all;
    speed::add_heap_rows(all);
    speed::add_packet_rows(all);
    speed::add_lookup_rows(all);
    speed::add_checksum_rows(all);
    std::vector<speed::Row> rows;
    for (speed::Row& row : all) {
        if (only == nullptr || row.work.find(only) != std::string::npos) rows.push_back(std::move(row));
    }
    if (count) return speed::count_instructions(rows);
    speed::print(rows, speed::measure(rows), counts);
    return 0;
}
