#include "interfaces/asyncq.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Body = std::function<void(int stopping)>;

AERROR Push(IAsyncQ* queue, ASYNCQ_LANE lane, Body body) {
  auto pushed = std::make_unique<Body>(std::move(body));
  const auto run = [](void* context, int stopping) {
    const std::unique_ptr<Body> own(static_cast<Body*>(context));
    (*own)(stopping);
  };
  const AERROR error = queue->Push(run, pushed.get(), lane);
  (void)(error == SUCCESS ? pushed.release() : nullptr);  // `run` has it
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
  std::string ran;
  std::latch all(4);
  for (const char name : {'b', 'U', 'c', 'V'}) {
    Push(queue, name < 'a' ? ASYNCQ_URGENT : ASYNCQ_BACKGROUND, [&, name](int) {
      ran += name;
      all.count_down();
    });
  }
  gate.open.count_down();
  all.wait();
  EXPECT_EQ(ran, "UVbc");
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
  queue->Release();
}

}  // namespace
