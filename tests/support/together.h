// together.h -- runs the same function in several threads.
#ifndef PELAGO_TESTS_SUPPORT_TOGETHER_H
#define PELAGO_TESTS_SUPPORT_TOGETHER_H

#include <barrier>
#include <thread>
#include <vector>

// Runs body(0) to body(count - 1), each in its own thread; all start at the same time.
template <typename Body> void Together(int count, Body body)
{
    std::barrier start(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; i++) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            body(i);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

#endif // PELAGO_TESTS_SUPPORT_TOGETHER_H
