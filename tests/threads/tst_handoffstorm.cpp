// A storm of hand-off threads under load: a million detached threads, started
// from two threads at once while two more keep both processors busy. Each
// thread is created detached, so none is detached as it ends (glibc before
// 2.43 can then touch freed memory: a crash once in about a million). Every
// job runs exactly once, and the work object waits for all of them.
#include <QtTest>

#include <QElapsedTimer>

#include <atomic>
#include <thread>
#include <vector>

#include "DetachedWork.h"
#include "ThreadCount.h"

namespace {
// Sanitizer builds start threads ten to fifty times slower: fewer there.
#if defined(__SANITIZE_THREAD__)
constexpr int kThreads = 20000;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int kThreads = 100000;
#else
constexpr int kThreads = 1000000;
#endif
constexpr qint64 kBudgetMs = 240000;
constexpr int kStarters = 2;
constexpr int kLoaders = 2;
} // namespace

class TestHandOffStorm : public QObject
{
    Q_OBJECT

private slots:
    void millionHandOffThreadsUnderLoadEachRunOnceAndEnd();
};

void TestHandOffStorm::millionHandOffThreadsUnderLoadEachRunOnceAndEnd()
{
    const int threadsBefore = threadCount();
    std::atomic<bool> stop{false};
    std::atomic<long> ran{0};
    std::atomic<long> started{0};
    std::vector<std::thread> loaders;
    for (int i = 0; i < kLoaders; ++i) {
        loaders.emplace_back([&stop] {
            volatile unsigned spin = 0;
            while (!stop.load(std::memory_order_relaxed))
                spin = spin + 1;
        });
    }
    QElapsedTimer timer;
    timer.start();
    {
        comm::DetachedWork work;
        std::vector<std::thread> starters;
        for (int s = 0; s < kStarters; ++s) {
            starters.emplace_back([&] {
                for (int i = 0; i < kThreads / kStarters && timer.elapsed() < kBudgetMs; ++i) {
                    work.start("comm-reply", [&ran] { ran.fetch_add(1, std::memory_order_relaxed); });
                    started.fetch_add(1, std::memory_order_relaxed);
                }
            });
        }
        for (std::thread &starter : starters)
            starter.join();
        // The work object's end waits for every job still running.
    }
    const qint64 elapsed = timer.elapsed();
    stop = true;
    for (std::thread &loader : loaders)
        loader.join();
    qInfo("%ld hand-off threads in %lld ms", started.load(), static_cast<long long>(elapsed));
    QCOMPARE(ran.load(), started.load());
    QVERIFY2(started.load() == kThreads || elapsed >= kBudgetMs, "the starters stopped early");
    // Every thread has ended, none is left behind.
    QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= threadsBefore, 10000);
}

QTEST_GUILESS_MAIN(TestHandOffStorm)
#include "tst_handoffstorm.moc"
