#include <apps/TALOClusterServer/OrderBook.h>

#include <chrono>
#include <exception>
#include <future>
#include <utility>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/receivers/kyNetReceiver.h>
#include <NetBase/serialization/kyNetStream.h>
#include <apps/TALOClusterServer/FrameGate.h>
#include <apps/TALOClusterServer/PathTracer.h>
#include <apps/common/SceneWire.h>

namespace render {

namespace {

constexpr std::size_t s_framesInWork = 2;

/// The text of a failure; an empty one would be a success.
std::string textOf(const std::exception& e)
{
    const std::string text = e.what();
    return text.empty() ? "Unknown failure" : text;
}

kyNetError unknownOrder(Order order)
{
    return kyNetError("Unknown order " + std::to_string(static_cast<std::uint32_t>(order)));
}

Answer answerTo(Order order, std::string failure = {})
{
    Answer answer;
    answer.order = order;
    answer.failure = std::move(failure);
    return answer;
}

} // namespace

OrderBook::OrderBook(kyNetStream& stream, FrameGate& gate)
    : m_stream(stream), m_gate(gate), m_worker(&OrderBook::work, this)
{
}

OrderBook::~OrderBook()
{
    stop();
}

void OrderBook::run()
{
    try {
        for (;;) {
            takeOrder();
        }
    } catch (const kyConnectionClosed&) {
        // The application is gone, as it is at the end of every job.
    } catch (const std::exception& e) {
        sayLast(answerTo(Order::None, textOf(e)));
    }
    stop();
}

void OrderBook::addScene(Scene scene)
{
    // By pointer: a function object is copied, a scene shall not be.
    const auto shared = std::make_shared<Scene>(std::move(scene));
    add({answerTo(Order::LoadScene), [this, shared](Answer&) { loadScene(std::move(*shared)); }});
}

void OrderBook::refuseScene(const std::string& failure)
{
    add({answerTo(Order::LoadScene, failure), {}});
}

Scene OrderBook::recvScene(kyNetStream& stream)
{
    auto order = Order();
    stream >> order;
    if (order != Order::LoadScene) {
        throw unknownOrder(order);
    }
    return getScene(stream);
}

void OrderBook::takeOrder()
{
    std::shared_ptr<kyNetBuffer> buffer;
    m_stream.getReceiver()->recv(buffer);
    checkLimit();
    if (buffer->getType() == kyNetMessageType::Message) {
        takeMessage(buffer);
    } else if (buffer->getType() != kyNetMessageType::StreamData) {
        throw kyNetError("Received a buffer that is no order");
    } else if (buffer->getDataSize() > 0) {
        // A flush behind a full buffer sends an empty one, which says nothing.
        m_stream.setRecvBuffer(buffer);
        addScene(recvScene(m_stream));
    }
}

void OrderBook::takeMessage(const std::shared_ptr<kyNetBuffer>& buffer)
{
    kyNetMessage message;
    message.setRecvBuffer(buffer);
    Job job;
    try {
        readMessage(message, job.answer, job.work);
    } catch (const std::exception& e) {
        job.answer.failure = textOf(e);
    }
    const bool isDone = job.answer.order == Order::BeginFrame && job.answer.failure.empty();
    if (!isDone) {
        add(std::move(job));
    }
}

void OrderBook::readMessage(kyNetMessage& message, Answer& answer, Work& work)
{
    auto order = Order();
    message >> order;
    switch (order) {
    case Order::BeginFrame: {
        Frame frame;
        answer.order = order;
        message >> answer.frame >> frame;
        beginFrame(answer.frame, frame);
        return;
    }
    case Order::RenderTile: {
        answer.order = order;
        message >> answer.frame >> answer.tile;
        // The worker may come to it when the next frames have begun.
        const Frame frame = findFrame(answer.frame);
        checkTile(answer.tile, frame);
        work = [this, frame](Answer& result) { renderTile(frame, result); };
        return;
    }
    case Order::ReportTraffic:
        answer.order = order;
        work = [this](Answer& result) { reportTraffic(result); };
        return;
    case Order::None:
    case Order::LoadScene:
        break;
    }
    throw unknownOrder(order);
}

void OrderBook::beginFrame(std::int32_t number, const Frame& frame)
{
    checkFrame(frame);
    m_frames.push_back({number, frame});
    if (m_frames.size() > s_framesInWork) {
        m_frames.pop_front();
    }
    m_gate.reach(number);
}

Frame OrderBook::findFrame(std::int32_t number) const
{
    for (const NumberedFrame& each : m_frames) {
        if (each.number == number) {
            return each.frame;
        }
    }
    throw kyNetError("Frame " + std::to_string(number) + " is not in work");
}

void OrderBook::add(Job job)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_jobs.push_back(std::move(job));
    m_changed.notify_all();
}

void OrderBook::checkLimit()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_jobs.size() >= s_limit) {
        throw kyNetError("More than " + std::to_string(s_limit) + " orders wait");
    }
}

void OrderBook::sayLast(Answer answer)
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_lastAnswer = std::move(answer);
        m_isStopped = true;
        m_changed.notify_all();
    }
    // Then the application hangs up. If the server did, the end of one channel could overtake the
    // answer on another one.
    const auto limit = std::async(std::launch::async, [this] {
        std::unique_lock<std::mutex> guard(m_lock);
        const std::chrono::duration<double> timeout(s_lastAnswerTimeout);
        m_changed.wait_for(guard, timeout, [this] { return m_hasHungUp; });
        m_stream.shutdown();
    });
    try {
        m_stream.recvAll();
    } catch (const std::exception&) {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_hasHungUp = true;
        m_changed.notify_all();
    }
}

void OrderBook::stop()
{
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_isStopped = true;
        m_changed.notify_all();
    }
    // The worker may be waiting for an application that reads its answers no more.
    m_stream.shutdown();
    if (m_worker.joinable()) {
        m_worker.join();
    }
}

void OrderBook::work()
{
    try {
        Job job;
        while (take(job)) {
            perform(job);
        }
        if (m_lastAnswer) {
            send(*m_lastAnswer);
        }
    } catch (const std::exception&) {
        // No answer gets through: let the reader notice too.
        m_stream.shutdown();
    }
}

bool OrderBook::take(Job& job)
{
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait(guard, [this] { return m_isStopped || !m_jobs.empty(); });
    if (m_isStopped) {
        return false;
    }
    job = std::move(m_jobs.front());
    m_jobs.pop_front();
    return true;
}

void OrderBook::perform(Job& job)
{
    const auto begin = std::chrono::steady_clock::now();
    try {
        if (job.work) {
            job.work(job.answer);
        }
    } catch (const std::exception& e) {
        job.answer.failure = textOf(e);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    job.answer.seconds = seconds.count();
    if (!m_isStopped) {
        send(job.answer);
    }
}

void OrderBook::send(const Answer& answer)
{
    AnswerMessage message;
    message.putAnswer(answer);
    m_stream.sendMessage(message, s_applicationRank, kyNetBufferSendMode::Automatic);
}

void OrderBook::loadScene(Scene scene)
{
    // First without the old one: there may not be room for both.
    m_tracer.reset();
    m_tracer = std::make_unique<PathTracer>(std::move(scene));
}

void OrderBook::renderTile(const Frame& frame, Answer& answer)
{
    if (!m_tracer) {
        throw kyNetError("There is no scene to render");
    }
    answer.pixels = m_tracer->render(frame, answer.tile, m_isStopped);
}

void OrderBook::reportTraffic(Answer& answer)
{
    m_stream.waitAllDataTransfered();
    answer.sentBytes = m_stream.getSentBytes();
    answer.compressedBytes = m_stream.getCompressedBytes();
}

} // namespace render
