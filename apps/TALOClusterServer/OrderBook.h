#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <apps/common/RenderProtocol.h>

class kyNetBuffer;
class kyNetMessage;
class kyNetStream;

namespace render {

class FrameGate;
class PathTracer;

/// Takes the application's orders from the stream and carries them out.
///
/// One thread only reads, so that it notices at once when the application is gone, also in the
/// middle of a tile, and that a frame begins while a tile of the last one is still in work. Another
/// one renders and answers: what it took, or the text of the exception that an order ended with.
///
/// Stream data is a scene, a message is an order, so nobody has to know which comes next. A message
/// that cannot be understood is answered and the next ones served. Stream data that is no scene has
/// no end that could be found: it ends the conversation after a last answer that says so.
///
/// Threads: one runs; any may add a scene.
class OrderBook
{
public:
    /// Orders that may wait. An application keeps two tiles on their way; one that orders without
    /// end is cut off here.
    static constexpr std::size_t s_limit = 1024;

    /// Seconds that the application has to hang up after the last answer.
    static constexpr double s_lastAnswerTimeout = 5.0;

    /// Over a stream to the application, to which nobody else writes.
    OrderBook(kyNetStream& stream, FrameGate& gate);
    ~OrderBook();

    OrderBook(const OrderBook&) = delete;
    OrderBook& operator=(const OrderBook&) = delete;

    /// Takes orders until the application is gone or out of order; drops what is not done then, and
    /// shuts the stream down. Blocks. Never throws.
    void run();

    /// Adds a scene that came another way; the application gets the answer to LoadScene.
    void addScene(Scene scene);

    /// Answers LoadScene with a failure.
    void refuseScene(const std::string& failure);

    /// Reads LoadScene and the scene. Throws kyNetError if it is something else, or no scene.
    static Scene recvScene(kyNetStream& stream);

private:
    /// Completes its answer. What it throws becomes the failure.
    using Work = std::function<void(Answer&)>;

    struct Job
    {
        Answer answer;
        Work work; ///< Empty: the answer says all.
    };

    struct NumberedFrame
    {
        std::int32_t number;
        Frame frame;
    };

    void takeOrder();
    void takeMessage(const std::shared_ptr<kyNetBuffer>& buffer);
    void readMessage(kyNetMessage& message, Answer& answer, Work& work);
    void beginFrame(std::int32_t number, const Frame& frame);
    Frame findFrame(std::int32_t number) const;

    void add(Job job);
    void checkLimit();
    void sayLast(Answer answer);
    void stop();

    void work();
    bool take(Job& job);
    void perform(Job& job);
    void send(const Answer& answer);
    void loadScene(Scene scene);
    void renderTile(const Frame& frame, Answer& answer);
    void reportTraffic(Answer& answer);

    kyNetStream& m_stream;
    FrameGate& m_gate;

    // Of the reading thread.
    std::deque<NumberedFrame> m_frames; ///< The last two.

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Job> m_jobs;
    std::optional<Answer> m_lastAnswer;
    std::atomic<bool> m_isStopped{false};
    bool m_hasHungUp = false;

    // Of the worker's thread.
    std::unique_ptr<PathTracer> m_tracer;

    std::thread m_worker;
};

} // namespace render
