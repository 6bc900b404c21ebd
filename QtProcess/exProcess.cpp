#include <QtProcess/exProcess.h>

#include <system_error>
#include <utility>

#include <QtProcess/platform/exChild.h>

namespace {

constexpr int s_mostUnread = 16 << 20;

std::vector<std::string> toTexts(const QStringList& list)
{
    std::vector<std::string> texts;
    for (const QString& text : list) {
        texts.push_back(text.toStdString());
    }
    return texts;
}

} // namespace

exProcess::exProcess(QObject* parent, const QString& name) : QObject(parent)
{
    setObjectName(name);
}

exProcess::~exProcess()
{
    release();
}

void exProcess::clearArguments()
{
    m_arguments.clear();
}

void exProcess::addArgument(const QString& argument)
{
    m_arguments.append(argument);
}

void exProcess::setCommunication(int mode)
{
    m_communication = mode;
}

bool exProcess::start(const QStringList* environment, bool hasDisplay)
{
    if (isRunning()) {
        return false;
    }
    release();

    exChild::Order order;
    order.arguments = toTexts(m_arguments);
    if (environment != nullptr) {
        order.environment = toTexts(*environment);
    }
    order.captureOutput = (m_communication & StandardOutput) != 0;
    order.captureError = (m_communication & StandardError) != 0;
    order.hasDisplay = hasDisplay;

    std::unique_ptr<exChild> started = exChild::start(order);
    if (!started) {
        return false;
    }
    exChild& child = *started;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_child = std::move(started);
    }
    if (order.captureOutput || order.captureError) {
        try {
            m_reader = std::thread([this, &child] { followOutput(child); });
        } catch (const std::system_error&) {
            release();
            return false;
        }
    }
    return true;
}

bool exProcess::isRunning() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_child && m_child->isRunning();
}

std::uint32_t exProcess::processId() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_child ? m_child->getProcessId() : 0;
}

void exProcess::tryTerminate()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_child) {
        m_child->terminate();
    }
}

void exProcess::kill()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_child) {
        m_child->kill();
    }
}

QByteArray exProcess::readStandardOutput()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return std::exchange(m_output, QByteArray());
}

QByteArray exProcess::readStandardError()
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return std::exchange(m_error, QByteArray());
}

void exProcess::followOutput(exChild& child)
{
    bool goesOn = true;
    while (goesOn) {
        std::string output;
        std::string error;
        goesOn = child.readOutput(output, error);
        append(m_output, output);
        append(m_error, error);
        // Without the lock, as the handlers read what has arrived.
        if (!output.empty()) {
            Q_EMIT readyReadStandardOutput();
        }
        if (!error.empty()) {
            Q_EMIT readyReadStandardError();
        }
    }
}

void exProcess::append(QByteArray& unread, const std::string& arrived)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    unread.append(arrived.data(), static_cast<int>(arrived.size()));
    if (unread.size() > s_mostUnread) {
        unread.remove(0, unread.size() - s_mostUnread);
    }
}

/// Ends a child that still runs and waits for the thread that reads it.
void exProcess::release()
{
    kill();
    if (m_reader.joinable()) {
        m_reader.join();
    }
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_child.reset();
}
