// What the queue's snapshots promise beyond their value: who sees the other side's step
// sees what that side did before it. Only the build with thread checks can tell.
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "spsc_queue.h"

namespace spsc_queue_edges_test {

using queue_t = vesk::spsc_queue<int, vesk::default_trait>;

// The other thread writes `data`, which nothing else orders, and then takes its step;
// this one waits for the step and reads it.
void expect_data_behind(
    const std::function<void()>& step, const std::function<bool()>& has_seen_it)
{
    std::string data = "unwritten";
    std::thread other([&] {
        data = "written";
        step();
    });
    while (!has_seen_it()) {
    }
    EXPECT_EQ(data, "written");
    other.join();
}

class SpscQueueSnapshots : public testing::Test {
protected:
    void enqueue() { EXPECT_TRUE(queue_.enqueue(1)); }
    void dequeue()
    {
        int element = 0;
        EXPECT_TRUE(queue_.try_dequeue(element));
    }

    queue_t queue_{1};
};

TEST_F(SpscQueueSnapshots, WhoSeesItNoLongerEmptySeesWhatPrecededTheElement)
{
    expect_data_behind([&] { enqueue(); }, [&] { return !queue_.isEmpty(); });
}

TEST_F(SpscQueueSnapshots, WhoSeesItEmptyAgainSeesWhatPrecededTheRemoval)
{
    enqueue();
    expect_data_behind([&] { dequeue(); }, [&] { return queue_.isEmpty(); });
}

TEST_F(SpscQueueSnapshots, WhoSeesItFullSeesWhatPrecededTheElement)
{
    expect_data_behind([&] { enqueue(); }, [&] { return queue_.isFull(); });
}

TEST_F(SpscQueueSnapshots, WhoSeesItNoLongerFullSeesWhatPrecededTheRemoval)
{
    enqueue();
    expect_data_behind([&] { dequeue(); }, [&] { return !queue_.isFull(); });
}

TEST_F(SpscQueueSnapshots, WhoSeesItGrowSeesWhatPrecededTheElement)
{
    expect_data_behind([&] { enqueue(); }, [&] { return queue_.sizeGuess() == 1; });
}

TEST_F(SpscQueueSnapshots, WhoSeesItShrinkSeesWhatPrecededTheRemoval)
{
    enqueue();
    expect_data_behind([&] { dequeue(); }, [&] { return queue_.sizeGuess() == 0; });
}

} // namespace spsc_queue_edges_test
