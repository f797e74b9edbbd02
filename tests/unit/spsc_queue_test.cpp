// The ring between producer and consumer: its capacity, order, ownership of the
// elements and of the slot array, and, on two threads, its hand-over.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "spsc_queue.h"

namespace spsc_queue_test {

using vesk::data_t;
using vesk::dataBuffer;
using vesk::default_trait;
using vesk::spsc_queue;

using message_queue = spsc_queue<data_t, default_trait>;
using int_queue = spsc_queue<int, default_trait>;

static_assert(std::is_same_v<vesk::queue_ptr, std::shared_ptr<message_queue>>);
static_assert(std::is_same_v<message_queue::size_t, std::size_t>);
static_assert(std::is_constructible_v<message_queue, std::size_t>);
static_assert(!std::is_default_constructible_v<message_queue>);
static_assert(!std::is_copy_constructible_v<message_queue>);
static_assert(!std::is_copy_assignable_v<message_queue>);
static_assert(!std::is_move_assignable_v<message_queue>);
static_assert(std::is_move_constructible_v<message_queue>);
static_assert(
    std::is_same_v<decltype(std::declval<message_queue&>().frontPtr()), data_t*>);
static_assert(std::is_same_v<
              decltype(std::declval<const message_queue&>().sizeGuess()), std::size_t>);
static_assert(
    std::is_same_v<decltype(std::declval<const message_queue&>().isEmpty()), bool>);
static_assert(
    std::is_same_v<decltype(std::declval<const message_queue&>().isFull()), bool>);
static_assert(std::is_empty_v<default_trait>);
static_assert(std::is_same_v<decltype(default_trait::malloc(std::size_t{})), void*>);

data_t make_message(std::size_t length)
{
    auto message = std::make_shared<dataBuffer>();
    message->length = length;
    return message;
}

// Counts its own life, so that a slot that is built or destroyed once too often
// or once too rarely shows.
class tracked {
public:
    explicit tracked(int value = 0) : value_(value) { ++built_; }
    tracked(tracked&& other) noexcept : value_(other.value_) { ++built_; }
    tracked& operator=(tracked&& other) noexcept
    {
        value_ = other.value_;
        ++moves_;
        return *this;
    }
    tracked(const tracked& other) : value_(other.value_) { ++built_; }
    tracked& operator=(const tracked& other)
    {
        value_ = other.value_;
        ++copies_;
        return *this;
    }
    ~tracked() { ++destroyed_; }

    int value() const { return value_; }

    static void reset() { built_ = destroyed_ = moves_ = copies_ = 0; }
    static int built() { return built_; }
    static int alive() { return built_ - destroyed_; }
    static int moves() { return moves_; }
    static int copies() { return copies_; }

private:
    inline static int built_ = 0;
    inline static int destroyed_ = 0;
    inline static int moves_ = 0;
    inline static int copies_ = 0;
    int value_;
};

// Remembers what was asked for and what came back.
struct recording_trait {
    static void* malloc(std::size_t size)
    {
        sizes_.push_back(size);
        blocks_.push_back(std::malloc(size));
        return blocks_.back();
    }
    static void free(void* block)
    {
        if (block != nullptr)
            freed_.push_back(block);
        std::free(block);
    }
    static void reset()
    {
        sizes_.clear();
        blocks_.clear();
        freed_.clear();
    }

    inline static std::vector<std::size_t> sizes_;
    inline static std::vector<void*> blocks_;
    inline static std::vector<void*> freed_;
};

struct failing_trait {
    static void* malloc(std::size_t size)
    {
        asked_.push_back(size);
        return nullptr;
    }
    static void free(void* block)
    {
        if (block != nullptr)
            ++freed_;
    }

    inline static std::vector<std::size_t> asked_;
    inline static int freed_ = 0;
};

class TrackedQueue : public ::testing::Test {
protected:
    void SetUp() override
    {
        tracked::reset();
        recording_trait::reset();
    }

    using queue_t = spsc_queue<tracked, recording_trait>;
};

std::vector<int> drain(int_queue& queue)
{
    std::vector<int> values;
    for (int value = 0; queue.try_dequeue(value);)
        values.push_back(value);
    return values;
}

class SpscQueueCapacity : public ::testing::TestWithParam<std::size_t> {};

TEST_P(SpscQueueCapacity, AcceptsThatManyElementsAndRefusesTheNext)
{
    int_queue queue(GetParam());

    for (std::size_t i = 0; i < GetParam(); ++i)
        ASSERT_TRUE(queue.enqueue(static_cast<int>(i))) << "element " << i;
    EXPECT_FALSE(queue.enqueue(-1));
}

TEST_P(SpscQueueCapacity, GivesTheElementsBackInOrderAndThenNoMore)
{
    int_queue queue(GetParam());
    std::vector<int> expected;
    for (int i = 0; queue.enqueue(i); ++i)
        expected.push_back(i);

    EXPECT_EQ(expected.size(), GetParam());
    EXPECT_EQ(drain(queue), expected);
}

TEST_P(SpscQueueCapacity, IsThereAgainAfterEveryWrap)
{
    int_queue queue(GetParam());

    // Each round moves the start of the ring by the capacity, so that in the end
    // every slot has been the first, the last and the empty one.
    for (std::size_t round = 0; round <= GetParam() + 1; ++round) {
        std::size_t accepted = 0;
        while (queue.enqueue(0))
            ++accepted;
        ASSERT_EQ(accepted, GetParam()) << "round " << round;
        ASSERT_EQ(drain(queue).size(), GetParam()) << "round " << round;
    }
}

TEST_P(SpscQueueCapacity, AllocatesOneSlotMoreThanTheCapacity)
{
    recording_trait::reset();
    {
        const spsc_queue<data_t, recording_trait> queue(GetParam());
    }
    EXPECT_EQ(
        recording_trait::sizes_,
        std::vector<std::size_t>{sizeof(data_t) * (GetParam() + 1)});
}

TEST_P(SpscQueueCapacity, ReturnsItsOneAllocationOnce)
{
    recording_trait::reset();
    {
        const spsc_queue<data_t, recording_trait> queue(GetParam());
        EXPECT_TRUE(recording_trait::freed_.empty());
    }
    EXPECT_EQ(recording_trait::freed_, recording_trait::blocks_);
}

INSTANTIATE_TEST_SUITE_P(
    Capacities, SpscQueueCapacity, ::testing::Values(0U, 1U, 2U, 3U, 1024U),
    ::testing::PrintToStringParamName());

TEST(SpscQueue, ACapacityOfZeroIsEmptyAndFullAtOnce)
{
    const int_queue queue(0);

    EXPECT_TRUE(queue.isEmpty());
    EXPECT_TRUE(queue.isFull());
    EXPECT_EQ(queue.sizeGuess(), 0U);
}

TEST(SpscQueue, ElementsStayInOrderAcrossTheWrap)
{
    int_queue queue(3);
    int next_in = 0;
    int next_out = 0;

    // Two are always left queued, so that each of the four slots is met in turn.
    while (next_in < 2)
        ASSERT_TRUE(queue.enqueue(next_in++));
    for (int round = 0; round < 1000; ++round) {
        ASSERT_TRUE(queue.enqueue(next_in++));
        int value = -1;
        ASSERT_TRUE(queue.try_dequeue(value));
        ASSERT_EQ(value, next_out++);
    }
    EXPECT_EQ(drain(queue), (std::vector<int>{next_out, next_out + 1}));
}

TEST(SpscQueue, ARefusedEnqueueLeavesTheMovedMessageWithItsCaller)
{
    message_queue queue(1);
    ASSERT_TRUE(queue.enqueue(make_message(1)));

    data_t message = make_message(2);
    EXPECT_FALSE(queue.enqueue(std::move(message)));

    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->length, 2U);
    EXPECT_EQ(message.use_count(), 1);
}

TEST(SpscQueue, ARefusedEnqueueTakesNoShareOfACopiedMessage)
{
    message_queue queue(0);

    const data_t message = make_message(2);
    EXPECT_FALSE(queue.enqueue(message));
    EXPECT_EQ(message.use_count(), 1);
}

TEST(SpscQueue, ARefusedEnqueueLeavesTheQueuedElementsAsTheyWere)
{
    int_queue queue(2);
    ASSERT_TRUE(queue.enqueue(1));
    ASSERT_TRUE(queue.enqueue(2));

    EXPECT_FALSE(queue.enqueue(3));
    EXPECT_EQ(drain(queue), (std::vector<int>{1, 2}));
}

TEST(SpscQueue, AMovedMessageIsTheQueuesAlone)
{
    message_queue queue(1);
    data_t message = make_message(7);
    const std::weak_ptr<dataBuffer> watch = message;

    ASSERT_TRUE(queue.enqueue(std::move(message)));
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(watch.use_count(), 1);
}

TEST(SpscQueue, ACopiedMessageIsSharedWithItsCaller)
{
    message_queue queue(1);
    const data_t message = make_message(7);

    ASSERT_TRUE(queue.enqueue(message));
    EXPECT_EQ(message.use_count(), 2);

    data_t taken;
    ASSERT_TRUE(queue.try_dequeue(taken));
    EXPECT_EQ(taken, message);
}

TEST(SpscQueue, AnElementIsBuiltInPlaceFromSeveralArguments)
{
    spsc_queue<std::pair<int, std::string>, default_trait> queue(1);
    ASSERT_TRUE(queue.enqueue(5, "five"));

    std::pair<int, std::string> element;
    ASSERT_TRUE(queue.try_dequeue(element));
    EXPECT_EQ(element, std::make_pair(5, std::string("five")));
}

TEST(SpscQueue, AnElementThatCannotBeCopiedPassesThrough)
{
    spsc_queue<std::unique_ptr<int>, default_trait> queue(1);
    ASSERT_TRUE(queue.enqueue(std::make_unique<int>(5)));

    std::unique_ptr<int> element;
    ASSERT_TRUE(queue.try_dequeue(element));
    ASSERT_NE(element, nullptr);
    EXPECT_EQ(*element, 5);
}

TEST(SpscQueue, AnEmptyQueueLeavesTheCallersPointer)
{
    message_queue queue(4);
    const data_t message = make_message(3);
    data_t record = message;

    EXPECT_FALSE(queue.try_dequeue(record));
    EXPECT_EQ(record, message);
    EXPECT_EQ(message.use_count(), 2);
}

TEST(SpscQueue, ADrainedQueueLeavesTheCallersPointer)
{
    message_queue queue(4);
    ASSERT_TRUE(queue.enqueue(make_message(3)));
    data_t record;
    ASSERT_TRUE(queue.try_dequeue(record));

    EXPECT_FALSE(queue.try_dequeue(record));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->length, 3U);
}

TEST(SpscQueue, ATakenMessageReplacesAndReleasesTheCallersOldOne)
{
    message_queue queue(1);
    data_t record = make_message(1);
    const std::weak_ptr<dataBuffer> old_message = record;
    ASSERT_TRUE(queue.enqueue(make_message(2)));

    ASSERT_TRUE(queue.try_dequeue(record));
    EXPECT_TRUE(old_message.expired());
    EXPECT_EQ(record->length, 2U);
}

TEST(SpscQueue, ATakenMessageLeavesNoShareInItsSlot)
{
    message_queue queue(1);
    ASSERT_TRUE(queue.enqueue(make_message(2)));

    data_t record;
    ASSERT_TRUE(queue.try_dequeue(record));
    EXPECT_EQ(record.use_count(), 1);
}

TEST_F(TrackedQueue, SlotsHoldNoElementsAtFirst)
{
    {
        const queue_t queue(16);
        EXPECT_EQ(tracked::built(), 0);
    }
    EXPECT_EQ(tracked::alive(), 0);
}

TEST_F(TrackedQueue, ARefusedEnqueueBuildsNothing)
{
    queue_t queue(1);
    ASSERT_TRUE(queue.enqueue(1));

    EXPECT_FALSE(queue.enqueue(2));
    EXPECT_EQ(tracked::built(), 1);
}

TEST_F(TrackedQueue, TakingMoveAssignsAndDestroysTheSlotsElement)
{
    queue_t queue(2);
    ASSERT_TRUE(queue.enqueue(1));
    tracked record;

    ASSERT_TRUE(queue.try_dequeue(record));
    EXPECT_EQ(record.value(), 1);
    EXPECT_EQ(tracked::moves(), 1);
    EXPECT_EQ(tracked::copies(), 0);
    EXPECT_EQ(tracked::alive(), 1) << "the record alone";
}

TEST_F(TrackedQueue, DestructionDestroysEachQueuedElementOnce)
{
    {
        queue_t queue(8);
        for (int i = 0; i < 5; ++i)
            ASSERT_TRUE(queue.enqueue(i));
    }
    EXPECT_EQ(tracked::built(), 5);
    EXPECT_EQ(tracked::alive(), 0);
}

TEST_F(TrackedQueue, DestructionFollowsTheElementsAroundTheWrap)
{
    {
        queue_t queue(3);
        tracked record;
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(queue.enqueue(i));
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(queue.try_dequeue(record));
        // Slot 3 and, behind the wrap, slots 0 and 1.
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(queue.enqueue(i));
        EXPECT_EQ(tracked::alive(), 4) << "three queued and the record";
    }
    EXPECT_EQ(tracked::alive(), 0);
}

TEST(SpscQueue, DestructionReleasesTheQueuedMessages)
{
    std::weak_ptr<dataBuffer> watch;
    {
        message_queue queue(4);
        data_t message = make_message(1);
        watch = message;
        ASSERT_TRUE(queue.enqueue(std::move(message)));
        ASSERT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

TEST(SpscQueue, AMessageHeldElsewhereSurvivesTheQueue)
{
    const data_t preloaded = make_message(9);
    {
        message_queue queue(4);
        ASSERT_TRUE(queue.enqueue(preloaded));
        ASSERT_TRUE(queue.enqueue(preloaded));
        ASSERT_EQ(preloaded.use_count(), 3);
    }
    EXPECT_EQ(preloaded.use_count(), 1);
    EXPECT_EQ(preloaded->length, 9U);
}

TEST(SpscQueue, AFailedAllocationIsABadAlloc)
{
    using broken_queue = spsc_queue<data_t, failing_trait>;

    EXPECT_THROW(broken_queue(1024), std::bad_alloc);
    EXPECT_EQ(failing_trait::freed_, 0);
}

TEST(SpscQueue, ACapacityThatNoRingCanHoldIsABadAlloc)
{
    // One slot more than this is none at all.
    constexpr std::size_t CAPACITY = std::numeric_limits<std::size_t>::max();

    EXPECT_THROW(message_queue{CAPACITY}, std::bad_alloc);
}

TEST(SpscQueue, NoMoreIsAllocatedThanTheIndicesCanCount)
{
    using broken_queue = spsc_queue<data_t, failing_trait>;
    constexpr std::size_t SLOTS = std::numeric_limits<std::uint32_t>::max();

    failing_trait::asked_.clear();
    EXPECT_THROW(broken_queue{SLOTS - 1}, std::bad_alloc);
    EXPECT_EQ(failing_trait::asked_, std::vector{SLOTS * sizeof(data_t)});
    EXPECT_THROW(broken_queue{SLOTS}, std::bad_alloc);
    EXPECT_EQ(failing_trait::asked_.size(), 1U);
}

TEST(SpscQueue, AMoveCarriesTheElementsOverInOrder)
{
    int_queue source(3);
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(source.enqueue(i));
    int first = -1;
    ASSERT_TRUE(source.try_dequeue(first));
    ASSERT_TRUE(source.enqueue(3));

    int_queue target(std::move(source));
    EXPECT_TRUE(target.isFull());
    EXPECT_EQ(drain(target), (std::vector<int>{1, 2, 3}));
}

TEST(SpscQueue, AMoveCarriesTheCapacityOver)
{
    int_queue source(3);
    int_queue target(std::move(source));

    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(target.enqueue(i));
    EXPECT_FALSE(target.enqueue(3));
}

TEST(SpscQueue, AMovedFromQueueHasACapacityOfZero)
{
    int_queue source(3);
    ASSERT_TRUE(source.enqueue(1));
    const int_queue target(std::move(source));

    int value = -1;
    EXPECT_FALSE(source.enqueue(2));
    EXPECT_FALSE(source.try_dequeue(value));
    EXPECT_EQ(source.frontPtr(), nullptr);
    EXPECT_EQ(source.sizeGuess(), 0U);
    EXPECT_EQ(target.sizeGuess(), 1U);
}

TEST_F(TrackedQueue, AMoveBuildsNoElementAndEachStillDiesOnce)
{
    {
        queue_t source(4);
        ASSERT_TRUE(source.enqueue(1));
        ASSERT_TRUE(source.enqueue(2));
        const queue_t target(std::move(source));
        EXPECT_EQ(tracked::built(), 2);
        EXPECT_EQ(tracked::alive(), 2);
    }
    EXPECT_EQ(tracked::alive(), 0);
    EXPECT_EQ(recording_trait::freed_, recording_trait::blocks_);
    EXPECT_EQ(recording_trait::blocks_.size(), 1U);
}

TEST(SpscQueue, TheFrontOfAnEmptyQueueIsNull)
{
    int_queue queue(2);
    EXPECT_EQ(queue.frontPtr(), nullptr);

    int value = 0;
    ASSERT_TRUE(queue.enqueue(1));
    ASSERT_TRUE(queue.try_dequeue(value));
    EXPECT_EQ(queue.frontPtr(), nullptr);
}

TEST(SpscQueue, TheFrontIsTheOldestElementAndStaysQueued)
{
    int_queue queue(2);
    ASSERT_TRUE(queue.enqueue(1));
    ASSERT_TRUE(queue.enqueue(2));

    int* const front = queue.frontPtr();
    ASSERT_NE(front, nullptr);
    EXPECT_EQ(*front, 1);
    EXPECT_EQ(queue.frontPtr(), front);
    EXPECT_EQ(queue.sizeGuess(), 2U);
}

TEST(SpscQueue, AChangeThroughTheFrontIsWhatIsTaken)
{
    int_queue queue(1);
    ASSERT_TRUE(queue.enqueue(1));

    *queue.frontPtr() = 5;
    EXPECT_EQ(drain(queue), std::vector<int>{5});
}

TEST(SpscQueue, PoppingUncoversTheNextElement)
{
    int_queue queue(2);
    ASSERT_TRUE(queue.enqueue(1));
    ASSERT_TRUE(queue.enqueue(2));

    queue.popFront();
    ASSERT_NE(queue.frontPtr(), nullptr);
    EXPECT_EQ(*queue.frontPtr(), 2);
    queue.popFront();
    EXPECT_TRUE(queue.isEmpty());
}

TEST(SpscQueue, PoppingMakesRoomAcrossTheWrap)
{
    int_queue queue(2);
    ASSERT_TRUE(queue.enqueue(0));
    ASSERT_TRUE(queue.enqueue(1));
    for (int i = 2; i < 20; ++i) {
        ASSERT_EQ(*queue.frontPtr(), i - 2);
        queue.popFront();
        ASSERT_TRUE(queue.enqueue(i));
        ASSERT_TRUE(queue.isFull());
    }
}

TEST_F(TrackedQueue, PoppingDestroysTheElement)
{
    queue_t queue(2);
    ASSERT_TRUE(queue.enqueue(1));
    ASSERT_TRUE(queue.enqueue(2));

    queue.popFront();
    EXPECT_EQ(tracked::alive(), 1);
}

TEST(SpscQueue, EmptyAndFullAreToldAtEachFill)
{
    int_queue queue(2);
    EXPECT_TRUE(queue.isEmpty());
    EXPECT_FALSE(queue.isFull());

    ASSERT_TRUE(queue.enqueue(1));
    EXPECT_FALSE(queue.isEmpty());
    EXPECT_FALSE(queue.isFull());

    ASSERT_TRUE(queue.enqueue(2));
    EXPECT_FALSE(queue.isEmpty());
    EXPECT_TRUE(queue.isFull());
}

TEST(SpscQueue, TheSizeFollowsEveryFillAtEveryStartOfTheRing)
{
    int_queue queue(3);
    int value = 0;
    // Three in and out of four slots: each round starts one slot further back.
    for (int start = 0; start < 4; ++start) {
        for (std::size_t fill = 0; fill < 3; ++fill) {
            ASSERT_EQ(queue.sizeGuess(), fill) << "start " << start;
            ASSERT_TRUE(queue.enqueue(0));
        }
        ASSERT_EQ(queue.sizeGuess(), 3U) << "start " << start;
        ASSERT_TRUE(queue.isFull()) << "start " << start;
        while (queue.try_dequeue(value)) {
        }
        ASSERT_EQ(queue.sizeGuess(), 0U) << "start " << start;
        ASSERT_TRUE(queue.isEmpty()) << "start " << start;
    }
}

TEST(DefaultTrait, ItsBlocksAreWritableAndGoBackToTheCLibrary)
{
    auto* const block = static_cast<unsigned char*>(default_trait::malloc(64));
    ASSERT_NE(block, nullptr);
    block[0] = 1;
    block[63] = 2;
    default_trait::free(block);

    std::free(default_trait::malloc(64));
    default_trait::free(std::malloc(64));
}

// The producer's half of a two-thread run. Between the two threads nothing but
// the queue orders anything, so that a race detector sees a queue that does not:
// the switch to give up is relaxed, and a yield is no synchronisation.
class producing_thread {
public:
    using queue_t = spsc_queue<std::unique_ptr<uint64_t>, default_trait>;

    producing_thread(queue_t& queue, uint64_t count)
        : thread_([this, &queue, count] { produce(queue, count); })
    {}
    ~producing_thread()
    {
        given_up_.store(true, std::memory_order_relaxed);
        thread_.join();
    }
    producing_thread(const producing_thread&) = delete;
    producing_thread& operator=(const producing_thread&) = delete;

private:
    void produce(queue_t& queue, uint64_t count)
    {
        for (uint64_t i = 0; i < count; ++i) {
            auto message = std::make_unique<uint64_t>(i);
            while (!queue.enqueue(std::move(message))) {
                if (given_up_.load(std::memory_order_relaxed))
                    return;
                std::this_thread::yield();
            }
        }
    }

    std::atomic<bool> given_up_{false};
    std::thread thread_;
};

class SpscQueueOnTwoThreads : public ::testing::TestWithParam<std::size_t> {
protected:
    static constexpr uint64_t COUNT = 300000;
    static constexpr uint64_t LEAST = 3000;

    // All have gone through, or as many as ten seconds are enough for. While others use
    // the processors, each hand-over may have to wait for their turns to end.
    bool enough(uint64_t messages) const
    {
        return messages == COUNT ||
               (messages >= LEAST &&
                std::chrono::steady_clock::now() - start_ > std::chrono::seconds(10));
    }

    // False after a minute without the condition.
    template <class Condition>
    static bool reached(Condition condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::yield();
        }
        return true;
    }

    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

TEST_P(SpscQueueOnTwoThreads, EveryMessageArrivesOnceAndInOrder)
{
    producing_thread::queue_t queue(GetParam());
    const producing_thread producer(queue, COUNT);

    std::unique_ptr<uint64_t> message;
    uint64_t i = 0;
    for (; !enough(i); ++i) {
        ASSERT_TRUE(reached([&] { return queue.try_dequeue(message); }))
            << "message " << i;
        ASSERT_NE(message, nullptr);
        ASSERT_EQ(*message, i);
    }
    if (i == COUNT) {
        EXPECT_FALSE(queue.try_dequeue(message));
    }
}

TEST_P(SpscQueueOnTwoThreads, TheFrontIsWholeWhenItIsSeen)
{
    producing_thread::queue_t queue(GetParam());
    const producing_thread producer(queue, COUNT);

    uint64_t i = 0;
    for (; !enough(i); ++i) {
        ASSERT_TRUE(reached([&] { return queue.frontPtr() != nullptr; }))
            << "message " << i;
        ASSERT_NE(*queue.frontPtr(), nullptr);
        ASSERT_EQ(**queue.frontPtr(), i);
        queue.popFront();
    }
    if (i == COUNT) {
        EXPECT_TRUE(queue.isEmpty());
    }
}

TEST_P(SpscQueueOnTwoThreads, TheSizeNeverPassesTheCapacity)
{
    producing_thread::queue_t queue(GetParam());
    const producing_thread producer(queue, COUNT);

    std::unique_ptr<uint64_t> message;
    for (uint64_t i = 0; !enough(i); ++i) {
        ASSERT_TRUE(reached([&] { return !queue.isEmpty(); })) << "message " << i;
        ASSERT_LE(queue.sizeGuess(), GetParam());
        ASSERT_GE(queue.sizeGuess(), 1U);
        ASSERT_TRUE(queue.try_dequeue(message));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Capacities, SpscQueueOnTwoThreads, ::testing::Values(1U, 2U, 1024U),
    ::testing::PrintToStringParamName());

} // namespace spsc_queue_test
