// The per-thread record both scheduler modes keep, and the intrusive wait-list operations.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/sched/sched.h"

namespace mvgps::sched
{

struct Thread {
    enum class State { Runnable, Blocked, Done };

    std::string name;
    std::size_t index = 0; // creation order: the simulated run picks among threads in this order
    State state = State::Runnable;
    std::function<void()> body;
    std::thread os;
    std::condition_variable cv;
    std::unique_lock<std::mutex>* baton = nullptr; // simulated mode: the lock it runs under

    // While blocked: what it waits on, until when, and its links on that wait list.
    WaitList* list = nullptr;
    Thread* next = nullptr;
    Thread* prev = nullptr;
    const char* what = "";
    Nanos deadline = kForever;
    bool woken = false;
    bool timed_out = false;

    WaitList joiners;
};

inline void enqueue(WaitList& list, Thread* t)
{
    t->list = &list;
    t->next = nullptr;
    t->prev = list.last;
    if (list.last != nullptr)
        list.last->next = t;
    else
        list.first = t;
    list.last = t;
}

inline void dequeue(Thread* t)
{
    WaitList* list = t->list;
    if (list == nullptr)
        return;
    if (t->prev != nullptr)
        t->prev->next = t->next;
    else
        list->first = t->next;
    if (t->next != nullptr)
        t->next->prev = t->prev;
    else
        list->last = t->prev;
    t->list = nullptr;
    t->next = t->prev = nullptr;
}

// Every thread a scheduler has started, in creation order, kept until the scheduler goes.
using ThreadTable = std::vector<std::unique_ptr<Thread>>;

inline Thread* add_record(ThreadTable& table, std::string name)
{
    auto t = std::make_unique<Thread>();
    t->name = std::move(name);
    t->index = table.size();
    table.push_back(std::move(t));
    return table.back().get();
}

// Which scheduler's record the calling thread is, if any.
struct ThreadBinding {
    const Scheduler* owner = nullptr;
    Thread* thread = nullptr;
};
ThreadBinding& binding();

} // namespace mvgps::sched
