// The rule compiler against the floor it cannot beat: reading the same rows
// with the same eight queries and plain sqlite3_step, every column's text
// fetched (as any reader must). Goals: writeProfileRules at most 1.5x that
// read on a 100000-row profile with more than 50000 distinct rules (aim
// 1.2), cost linear in rows, and at most 64 MiB of peak memory over the
// process's baseline.
//
//   bench_engine                               all benchmarks
//   bench_engine --memory-probe <container> <profile>
//                                              one compile in this fresh
//                                              process; prints the peak RSS
//                                              growth and the C++ heap peak
//
// BM_CompileVsRawRead alternates the two in every iteration, so both see the
// same cache state, and reports as counters: wall times and their ratio;
// process CPU times (all threads: the total work) and their ratio; and the
// compile's calling-thread CPU against the raw read (the critical path when
// the compiler's helper thread gets a core of its own). On a shared, busy
// machine trust the CPU ratios over the wall ratio.
// BM_Memory runs the probe in a fresh process per size.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>

#include "ProfileGenerator.h"
#include "engine/CompanionController.h"
#include "platform/testing/TestPlatform.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"

// --- A counting allocator: the peak of live C++ heap bytes --------------------

namespace {
std::atomic<size_t> liveBytes{0};
std::atomic<size_t> peakBytes{0};

void* countedAllocate(size_t size) {
    // The size sits in front of the block so that delete knows what it frees.
    void* block = std::malloc(size + sizeof(std::max_align_t));
    if (!block) throw std::bad_alloc();
    *static_cast<size_t*>(block) = size;
    const size_t now = liveBytes.fetch_add(size, std::memory_order_relaxed) + size;
    size_t peak = peakBytes.load(std::memory_order_relaxed);
    while (now > peak && !peakBytes.compare_exchange_weak(peak, now)) {
    }
    return static_cast<char*>(block) + sizeof(std::max_align_t);
}

void countedFree(void* pointer) noexcept {
    if (!pointer) return;
    void* block = static_cast<char*>(pointer) - sizeof(std::max_align_t);
    liveBytes.fetch_sub(*static_cast<size_t*>(block), std::memory_order_relaxed);
    std::free(block);
}
}  // namespace

void* operator new(size_t size) { return countedAllocate(size); }
void* operator new[](size_t size) { return countedAllocate(size); }
void operator delete(void* pointer) noexcept { countedFree(pointer); }
void operator delete[](void* pointer) noexcept { countedFree(pointer); }
void operator delete(void* pointer, size_t) noexcept { countedFree(pointer); }
void operator delete[](void* pointer, size_t) noexcept { countedFree(pointer); }

namespace stonewall {
namespace {

constexpr int64_t kCompileOrder[] = {5, 1, 4, 2, 3, 6, 7, 8};
constexpr char kSelectByActionSql[] = "SELECT * FROM ProfileRules WHERE action=? ORDER BY filter";

// One generated profile per size, made on first use and kept for the run.
class Profiles {
  public:
    static Profiles& instance() {
        static Profiles profiles;
        return profiles;
    }

    std::string profileID(int64_t rows) {
        const std::string id = "bench" + std::to_string(rows);
        if (!made_.count(rows)) {
            auto database = ProfileDatabase::initWithBlockerProfileID(id);
            ProfileGenerator().fillDatabase(*database, static_cast<size_t>(rows));
            made_[rows] = true;
        }
        return id;
    }
    std::string databasePath(int64_t rows) {
        return platform_->containerPath() + "/.Profiles/profile_" + profileID(rows) + "_data";
    }
    std::string containerPath() const { return platform_->containerPath(); }

  private:
    Profiles() {
        setenv("STONEWALL_RESOURCES", STONEWALL_BENCH_RESOURCES, 0);
        platform_ = std::make_unique<platform::testing::TestPlatform>();
    }
    std::unique_ptr<platform::testing::TestPlatform> platform_;
    std::map<int64_t, bool> made_;
};

// The floor: the compiler's eight queries, every column's text read.
size_t rawRead(sqlite3* database) {
    size_t bytes = 0;
    for (int64_t action : kCompileOrder) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(database, kSelectByActionSql, -1, &statement, nullptr);
        sqlite3_bind_int(statement, 1, static_cast<int>(action));
        while (sqlite3_step(statement) == SQLITE_ROW) {
            for (int column = 0; column < 10; ++column) {
                const unsigned char* text = sqlite3_column_text(statement, column);
                bytes += text ? static_cast<size_t>(sqlite3_column_bytes(statement, column)) : 0;
            }
        }
        sqlite3_finalize(statement);
    }
    return bytes;
}

struct Seconds {
    double wall = 0;
    double cpu = 0;  // all threads, user and system: the total work
    // The calling thread alone: the critical path when the compiler's helper
    // thread has a core of its own, i.e. the wall time of an idle machine.
    double caller = 0;
};

double processCPUSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double callerCPUSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void addTimeOf(Seconds& total, const std::function<void()>& work) {
    const auto wallStart = std::chrono::steady_clock::now();
    const double cpuStart = processCPUSeconds();
    const double callerStart = callerCPUSeconds();
    work();
    total.caller += callerCPUSeconds() - callerStart;
    total.cpu += processCPUSeconds() - cpuStart;
    total.wall +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
}

void BM_RawRead(benchmark::State& state) {
    const std::string path = Profiles::instance().databasePath(state.range(0));
    sqlite3* database = nullptr;
    sqlite3_open(path.c_str(), &database);
    for (auto _ : state) benchmark::DoNotOptimize(rawRead(database));
    sqlite3_close_v2(database);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_WriteProfileRules(benchmark::State& state) {
    const std::string id = Profiles::instance().profileID(state.range(0));
    auto database = ProfileDatabase::initWithBlockerProfileID(id);
    CompileReport report;
    for (auto _ : state) CompanionController::writeProfileRules(id, database, &report);
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.counters["written"] = static_cast<double>(report.rulesWritten);
    state.counters["distinct"] =
        static_cast<double>(report.rulesWritten + report.rulesDroppedByCap);
    state.counters["MB"] = static_cast<double>(report.bytesWritten) / 1e6;
}

void BM_CompileVsRawRead(benchmark::State& state) {
    const std::string id = Profiles::instance().profileID(state.range(0));
    const std::string path = Profiles::instance().databasePath(state.range(0));
    auto database = ProfileDatabase::initWithBlockerProfileID(id);
    sqlite3* raw = nullptr;
    sqlite3_open(path.c_str(), &raw);
    Seconds rawTime;
    Seconds compileTime;
    for (auto _ : state) {
        addTimeOf(rawTime, [&] { benchmark::DoNotOptimize(rawRead(raw)); });
        addTimeOf(compileTime, [&] { CompanionController::writeProfileRules(id, database); });
    }
    sqlite3_close_v2(raw);
    const double n = static_cast<double>(state.iterations());
    state.counters["raw_cpu_ms"] = rawTime.cpu / n * 1e3;
    state.counters["compile_cpu_ms"] = compileTime.cpu / n * 1e3;
    state.counters["ratio_cpu"] = compileTime.cpu / rawTime.cpu;
    state.counters["compile_caller_ms"] = compileTime.caller / n * 1e3;
    state.counters["ratio_caller"] = compileTime.caller / rawTime.cpu;
    state.counters["raw_wall_ms"] = rawTime.wall / n * 1e3;
    state.counters["compile_wall_ms"] = compileTime.wall / n * 1e3;
    state.counters["ratio_wall"] = compileTime.wall / rawTime.wall;
}

// --- Memory, in a fresh process ------------------------------------------------

size_t statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(field) + ":";
    while (std::getline(status, line)) {
        if (line.rfind(prefix, 0) == 0) return std::stoul(line.substr(prefix.size()));
    }
    return 0;
}

int memoryProbe(const std::string& container, const std::string& profileID) {
    setenv("STONEWALL_RESOURCES", STONEWALL_BENCH_RESOURCES, 0);
    platform::testing::TestPlatform platform;
    platform.host->setContainerPath(platform::testing::kTestApplicationGroup, container);
    auto database = ProfileDatabase::initWithBlockerProfileID(profileID);
    (void)database->getProfileRulesCount();  // the connection is really open

    // Peak RSS from here on: the kernel restarts VmHWM at the current RSS.
    std::ofstream("/proc/self/clear_refs") << "5";
    const size_t baselineKiB = statusKiB("VmRSS");
    const size_t heapBaseline = liveBytes.load();
    peakBytes.store(heapBaseline);

    CompileReport report;
    CompanionController::writeProfileRules(profileID, database, &report);

    const size_t peakKiB = statusKiB("VmHWM");
    std::printf("%zu %zu %lld\n", peakKiB - baselineKiB, (peakBytes.load() - heapBaseline) / 1024,
                static_cast<long long>(report.rulesWritten));
    return report.fileWritten ? 0 : 1;
}

void BM_Memory(benchmark::State& state) {
    const std::string id = Profiles::instance().profileID(state.range(0));
    const std::string container = Profiles::instance().containerPath();
    double rssMiB = 0;
    double heapMiB = 0;
    for (auto _ : state) {
        int fds[2];
        if (pipe(fds) != 0) {
            state.SkipWithError("pipe");
            return;
        }
        const pid_t child = fork();
        if (child == 0) {
            dup2(fds[1], STDOUT_FILENO);
            execl("/proc/self/exe", "bench_engine", "--memory-probe", container.c_str(), id.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        char buffer[128] = {};
        const ssize_t got = read(fds[0], buffer, sizeof buffer - 1);
        close(fds[0]);
        int status = 0;
        waitpid(child, &status, 0);
        size_t rssKiB = 0, heapKiB = 0;
        long long written = 0;
        if (got <= 0 || std::sscanf(buffer, "%zu %zu %lld", &rssKiB, &heapKiB, &written) != 3 ||
            !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("memory probe failed");
            return;
        }
        rssMiB = static_cast<double>(rssKiB) / 1024;
        heapMiB = static_cast<double>(heapKiB) / 1024;
    }
    state.counters["peak_rss_MiB"] = rssMiB;
    state.counters["peak_heap_MiB"] = heapMiB;
}

BENCHMARK(BM_RawRead)->Arg(10000)->Arg(100000)->Arg(400000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteProfileRules)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(400000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompileVsRawRead)
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(400000)
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);
BENCHMARK(BM_Memory)->Arg(100000)->Arg(400000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace stonewall

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--memory-probe") {
        return stonewall::memoryProbe(argv[2], argv[3]);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
