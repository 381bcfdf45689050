// Detached, named threads with POSIX threads.
#include "DetachedThread.h"

#include <memory>

#include <pthread.h>

namespace comm {

namespace {
struct Start
{
    const char *name;
    std::function<void()> body;
};

void *threadMain(void *argument)
{
    std::unique_ptr<Start> start(static_cast<Start *>(argument));
    pthread_setname_np(pthread_self(), start->name);
    std::function<void()> body = std::move(start->body);
    start.reset();
    body();
    return nullptr;
}
} // namespace

bool startDetachedThread(const char *name, std::function<void()> body)
{
    auto start = std::make_unique<Start>(Start{name, std::move(body)});
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_t thread;
    const bool started = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0
                         && pthread_create(&thread, &attributes, &threadMain, start.get()) == 0;
    pthread_attr_destroy(&attributes);
    if (started)
        start.release(); // the thread owns it now
    return started;
}

} // namespace comm
