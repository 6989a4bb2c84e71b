#include "platform/MainThread.h"
#include "platform/WorkerThread.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

namespace {

/// One task run on the main thread while the caller waits, as after each block of a transfer at full speed.
void handOver(benchmark::State& state) {
    int counter = 0;
    for ([[maybe_unused]] auto _ : state) {
        MainThread::performAndWait([&counter] { benchmark::DoNotOptimize(++counter); });
    }
}
BENCHMARK(handOver)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const QCoreApplication application(argc, argv);
    MainThread::attach();
    startWorkerThread([] {
        benchmark::RunSpecifiedBenchmarks();
        QCoreApplication::exit(0);
    });
    return QCoreApplication::exec();
}
