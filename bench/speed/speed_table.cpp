// Runs every row of the speed table and prints it. An idle second thread is
// started before anything else, so glibc and the mutexes take the paths
// they take in a multi-threaded host. Times are this thread's CPU time, so
// other load on the machine costs little; each row's ratio is the median
// of its per-round ratios over five rounds, in which ours and the peer run
// back to back.
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <thread>

#include "speed_table.h"

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

void print(const std::vector<Row>& rows, const std::vector<Result>& results) {
    const char* arch = sizeof(void*) == 8 ? "x86-64" : "i386 (-m32)";
    std::printf("libcorvex speed table, %s: ns per operation in thread CPU time, ratio = libcorvex / peer\n"
                "(median of %d rounds, an idle second thread running); floor: the part of the work the\n"
                "design fixes, timed alone in the same rounds\n\n",
                arch, kRounds);
    std::printf("| Work | libcorvex ns | Peer | Peer ns | Ratio | Goal | Met | Floor | Floor ns | Floor ratio |\n");
    std::printf("|---|---:|---|---:|---:|---:|---|---|---:|---:|\n");
    int met_count = 0, out_of_reach = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        const Result& result = results[i];
        const bool met = result.ratio <= row.goal;
        const bool floor_misses = row.floor && result.floor_ratio > row.goal;
        met_count += met ? 1 : 0;
        out_of_reach += !met && floor_misses ? 1 : 0;
        std::printf("| %s | %.1f | %s | %.1f | %.2f | %.1f | %s |", row.work.c_str(), result.ours_ns,
                    row.peer_name.c_str(), result.peer_ns, result.ratio, row.goal,
                    met ? "yes" : floor_misses ? "no (floor above goal)" : "no");
        if (row.floor) {
            std::printf(" %s | %.1f | %.2f |\n", row.floor_name.c_str(), result.floor_ns, result.floor_ratio);
        } else {
            std::printf(" none | | |\n");
        }
    }
    std::printf("\n%d of %zu goals met; %d of the %zu missed are out of the design's reach: "
                "their floor alone is above the goal\n",
                met_count, rows.size(), out_of_reach, rows.size() - static_cast<size_t>(met_count));
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

// Usage: speed_table [TEXT]   (only the rows whose work contains TEXT,
// e.g. to profile one of them)
int main(int argc, char** argv) {
    speed::IdleThread idle;
    std::vector<speed::Row> all;
    speed::add_heap_rows(all);
    speed::add_packet_rows(all);
    speed::add_lookup_rows(all);
    speed::add_checksum_rows(all);
    std::vector<speed::Row> rows;
    for (speed::Row& row : all) {
        if (argc < 2 || row.work.find(argv[1]) != std::string::npos) rows.push_back(std::move(row));
    }
    speed::print(rows, speed::measure(rows));
    return 0;
}
