#include "interfaces/asyncq.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Body = std::function<void(int stopping)>;
using Names = std::vector<std::string>;

void RunBody(void* context, int stopping) {
  const std::unique_ptr<Body> body(static_cast<Body*>(context));
  (*body)(stopping);
}

AERROR Push(IAsyncQ* queue, ASYNCQ_LANE lane, Body body) {
  auto context = std::make_unique<Body>(std::move(body));
  const AERROR error = queue->Push(&RunBody, context.get(), lane);
  (void)(error == SUCCESS ? context.release() : nullptr);  // RunBody has it
  return error;
}

IAsyncQ* MakeQueue(int workers) {
  IAsyncQ* queue = nullptr;
  EXPECT_TRUE(InitAsyncQ(workers, &queue));
  return queue;
}

// Occupies workers with background tasks until it is opened.
struct Gate {
  Gate(IAsyncQ* queue, int workers) : all_entered(workers) {
    for (int i = 0; i < workers; ++i) {
      Push(queue, ASYNCQ_BACKGROUND, [this](int) {
        all_entered.count_down();
        open.wait();
      });
    }
    all_entered.wait();
  }
  std::latch all_entered;
  std::latch open{1};
};

TEST(AsyncQueueTest, UrgentLaneGoesFirstAndEachLaneKeepsItsOrder) {
  IAsyncQ* queue = MakeQueue(1);
  Gate gate(queue, 1);
  Names ran;
  for (const auto& [lane, name] : {std::pair{ASYNCQ_BACKGROUND, "b1"},
                                   {ASYNCQ_URGENT, "u1"},
                                   {ASYNCQ_BACKGROUND, "b2"},
                                   {ASYNCQ_URGENT, "u2"}}) {
    Push(queue, lane, [&ran, text = name](int) { ran.emplace_back(text); });
  }
  std::latch all(1);
  Push(queue, ASYNCQ_BACKGROUND, [&](int) { all.count_down(); });
  gate.open.count_down();
  all.wait();
  EXPECT_EQ(ran, (Names{"u1", "u2", "b1", "b2"}));
  queue->Release();
}

TEST(AsyncQueueTest, BackgroundWorkLeavesAQuarterOfTheWorkersFree) {
  IAsyncQ* queue = MakeQueue(4);
  Gate gate(queue, 3);
  std::atomic<int> background_runs = 0;
  for (int i = 0; i < 100; ++i) {
    Push(queue, ASYNCQ_BACKGROUND, [&](int) { ++background_runs; });
  }
  std::latch urgent(1);
  Push(queue, ASYNCQ_URGENT, [&](int) { urgent.count_down(); });
  urgent.wait();
  EXPECT_EQ(background_runs.load(), 0);
  gate.open.count_down();
  queue->Release();
  EXPECT_EQ(background_runs.load(), 100);
}

TEST(AsyncQueueTest, ReleaseCallsEachAcceptedTaskOnceAndTellsWaitingOnesToStop) {
  IAsyncQ* queue = MakeQueue(2);
  Gate gate(queue, 2);
  std::vector<std::atomic<int>> calls(200);
  std::atomic<int> late_push = SUCCESS;
  for (std::atomic<int>& call : calls) {
    Push(queue, ASYNCQ_BACKGROUND, [&](int stopping) {
      call += stopping == 1 ? 1 : 100;
      late_push = Push(queue, ASYNCQ_URGENT, [](int) {});
    });
  }
  std::thread releasing([&] { queue->Release(); });
  while (Push(queue, ASYNCQ_URGENT, [](int) {}) == SUCCESS) {
    std::this_thread::yield();  // until Release has begun
  }
  gate.open.count_down();
  releasing.join();
  EXPECT_EQ(late_push.load(), ASYNCQ_STOPPED);
  for (const std::atomic<int>& call : calls) {
    EXPECT_EQ(call.load(), 1);
  }
}

TEST(AsyncQueueTest, ThreadsAndTasksPushAtOnce) {
  IAsyncQ* queue = MakeQueue(16);
  std::latch all(4000);
  std::vector<std::jthread> pushers(4);
  for (std::jthread& pusher : pushers) {
    pusher = std::jthread([&] {
      for (int i = 0; i < 1000; ++i) {
        Push(queue, i % 2 == 0 ? ASYNCQ_URGENT : ASYNCQ_BACKGROUND,
             [&](int) { Push(queue, ASYNCQ_BACKGROUND, [&](int) { all.count_down(); }); });
      }
    });
  }
  all.wait();
  EXPECT_EQ(queue->Push(nullptr, nullptr, ASYNCQ_URGENT), ASYNCQ_NULLOBJECT);
  queue->Release();
}

TEST(AsyncQueueTest, FailsAndLeavesNoThreadWhenThreadsRunOutOrAreNoNumber) {
  for (const int workers : {0, -1, 1025, 1 << 30}) {
    IAsyncQ* queue = nullptr;
    EXPECT_FALSE(InitAsyncQ(workers, &queue) || queue != nullptr) << workers;
  }
#if defined(TARN_SANITIZED)
  GTEST_SKIP() << "sanitizers abort when memory for a thread is short";
#endif
  const pid_t child = ::fork();
  if (child == 0) {  // limits stay in the child
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t few_stacks = pages * static_cast<rlim_t>(::getpagesize()) + (rlim_t{100} << 20);
    const rlimit limit{few_stacks, few_stacks};
    ::setrlimit(RLIMIT_AS, &limit);
    IAsyncQ* queue = nullptr;
    const bool first = InitAsyncQ(500, &queue);
    const auto threads = std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    ::_exit(!first && queue == nullptr && threads == 1 ? 0 : 1);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

}  // namespace
