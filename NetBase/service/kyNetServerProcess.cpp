#include <NetBase/service/kyNetServerProcess.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>
#include <utility>

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QString>
#include <QTextCodec>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/service/kyNetServerFolder.h>
#include <QtProcess/exProcess.h>
#include <Utils/kyFile.h>
#include <Utils/kyLog.h>
#include <Utils/kyNumber.h>
#include <Utils/kyPlatform.h>
#include <VersionInfo/kyVersionInfo.h>

namespace {

constexpr const char* s_programName = "TALOClusterServer";
constexpr const char* s_pipeVariable = "TALO_LOCAL_SERVICE";

/// The first version whose servers take their pipe from the command line.
constexpr double s_pipeArgumentVersion = 9.0;
/// Decimal versions are no exact binary numbers.
constexpr double s_versionTolerance = 0.0001;

constexpr int s_outputLevel = 6;
constexpr std::chrono::milliseconds s_waitPause{100};

/// Seconds that a server has for its own end, for its end on request, and for being killed.
constexpr double s_endTimeout = 3.0;
constexpr double s_terminateTimeout = 3.0;
constexpr double s_killTimeout = 5.0;

/// One child at a time is launched: the environment variable belongs to the whole process and
/// must be that of the child that inherits it.
std::mutex s_launchMutex;

struct InProcess
{
    std::atomic<bool> isOn{false};
    std::mutex mutex;
    std::function<void(std::string)> function;
};

/// Never destroyed: a service that the process began may still start servers while it ends.
InProcess& inProcess()
{
    static InProcess& instance = *new InProcess;
    return instance;
}

using LogText = void (*)(const std::string&, int, bool) noexcept;

/// A handler that logs what it reads. It puts characters together that were cut in two where the
/// child's output was.
auto logging(exProcess& process, QByteArray (exProcess::*read)(), LogText log)
{
    const std::shared_ptr<QTextDecoder> decoder(
        QTextCodec::codecForName("UTF-8")->makeDecoder(QTextCodec::IgnoreHeader));
    return [&process, read, log, decoder] {
        log(decoder->toUnicode((process.*read)()).toStdString(), s_outputLevel, false);
        std::fflush(stdout);
    };
}

void logOutput(exProcess& process)
{
    QObject::connect(&process, &exProcess::readyReadStandardOutput,
                     logging(process, &exProcess::readStandardOutput, &kyLog::infoI));
    QObject::connect(&process, &exProcess::readyReadStandardError,
                     logging(process, &exProcess::readStandardError, &kyLog::errorI));
}

} // namespace

std::shared_ptr<kyNetServerProcess>
kyNetServerProcess::create(const std::string& arguments, std::uint32_t serverId,
                           const std::string& serverPath, const std::string& version,
                           bool hasDisplay, bool isStereo, bool flagZ, bool flagT, bool flagTA,
                           const std::string& bookingId)
{
    return std::make_shared<kyNetServerProcess>(arguments, serverId, serverPath, version,
                                                hasDisplay, isStereo, flagZ, flagT, flagTA,
                                                bookingId);
}

kyNetServerProcess::kyNetServerProcess(const std::string& arguments, std::uint32_t serverId,
                                       const std::string& serverPath, const std::string& version,
                                       bool hasDisplay, bool isStereo, bool flagZ, bool flagT,
                                       bool flagTA, const std::string& bookingId)
    : m_serverId(serverId),
      m_pipe(inProcess().isOn),
      m_serverPath(serverPath),
      m_arguments(arguments),
      m_bookingId(bookingId),
      m_version(version),
      m_flagZ(flagZ),
      m_flagT(flagT),
      m_flagTA(flagTA),
      m_hasDisplay(hasDisplay),
      m_isStereo(isStereo)
{
}

kyNetServerProcess::~kyNetServerProcess()
{
    m_pipe.shutdown();
    m_released.set_value();
    if (!wait(s_endTimeout)) {
        if (exProcess* process = getProcess()) {
            process->tryTerminate();
            if (!wait(s_terminateTimeout)) {
                process->kill();
            }
        }
        wait(s_killTimeout);
    }
}

void kyNetServerProcess::setInProcess(bool isInProcess, std::function<void(std::string)> callback)
{
    InProcess& state = inProcess();
    const std::lock_guard<std::mutex> guard(state.mutex);
    state.isOn = isInProcess;
    state.function = std::move(callback);
}

void kyNetServerProcess::start(bool console)
{
    if (inProcess().isOn) {
        executeThread(console);
    } else {
        executeProcess(console);
    }
}

void kyNetServerProcess::executeProcess(bool console)
{
    const std::lock_guard<std::mutex> launch(s_launchMutex);
    auto process = std::make_unique<exProcess>();
    process->clearArguments();
    process->setCommunication(console ? exProcess::StandardOutput | exProcess::StandardError
                                      : exProcess::NoCommunication);
    if (console) {
        logOutput(*process);
    }

    const std::string path = getServerPath(m_version);
    process->addArgument(QString::fromStdString(path));
    if (m_flagZ) {
        process->addArgument("-Z");
    }
    if (!m_hasDisplay) {
        process->addArgument("-P");
    } else if (m_isStereo) {
        process->addArgument("-s");
    }
    if (m_flagT) {
        process->addArgument(m_flagTA ? "-ta" : "-t");
    }
    setSocketPipeArgument(*process);
    process->addArgument(QString::fromStdString(m_arguments));

    if (!process->start(nullptr, m_hasDisplay)) {
        throw kyNetError("Error starting process '" + path +
                         "'. File not found or insufficient permission to start.");
    }
    m_processId = process->processId();
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_process = std::move(process);
}

/// Servers before 9.0 do not know the argument and look for the variable.
void kyNetServerProcess::setSocketPipeArgument(exProcess& process)
{
    const QString name = QString::fromStdString(m_pipe.getName());
    if (kyNumber::toDouble(m_version) + s_versionTolerance > s_pipeArgumentVersion) {
        process.addArgument(QString("-socketpipe=%1").arg(name));
    } else {
        qputenv(s_pipeVariable, name.toLocal8Bit());
    }
}

std::string kyNetServerProcess::getServerPath(const std::string& version) const
{
    if (!m_serverPath.empty() && kyFile::exists(m_serverPath)) {
        return m_serverPath;
    }
    const QString separator = QDir::separator();
    return getBinDir(version) + separator.toStdString() + s_programName +
           kyPlatform::getProgramSuffix();
}

std::string kyNetServerProcess::getBinDir(const std::string& version)
{
    return kyNetServerFolder::find(kyPlatform::getBinDir(), kyVersionInfo::the().getVersionString(),
                                   version);
}

/// The output of a thread is that of this process: there is nothing to capture.
void kyNetServerProcess::executeThread(bool)
{
    InProcess& state = inProcess();
    std::function<void(std::string)> function;
    {
        const std::lock_guard<std::mutex> guard(state.mutex);
        function = state.function;
    }
    std::future<void> thread =
        std::async(std::launch::async, [name = m_pipe.getName(), function = std::move(function),
                                        released = m_released.get_future()] {
            if (!function) {
                released.wait();
                return;
            }
            try {
                function(name);
            } catch (const std::exception& exception) {
                kyLog::error("%s", exception.what());
            }
        });
    m_processId = kyPlatform::getProcessId();
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_thread = std::move(thread);
}

exProcess* kyNetServerProcess::getProcess() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_process.get();
}

bool kyNetServerProcess::isRunning() const
{
    if (const exProcess* process = getProcess()) {
        return process->isRunning();
    }
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_thread.valid() &&
           m_thread.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

bool kyNetServerProcess::wait(double timeout)
{
    const auto begin = std::chrono::steady_clock::now();
    while (isRunning()) {
        if (getProcess() != nullptr) {
            QCoreApplication::processEvents();
        }
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        if (passed.count() > timeout) {
            return false;
        }
        std::this_thread::sleep_for(s_waitPause);
    }
    return true;
}

void kyNetServerProcess::tryKill()
{
    exProcess* process = getProcess();
    if (process == nullptr) {
        return;
    }
    process->tryTerminate();
    if (!wait(s_terminateTimeout)) {
        process->kill();
    }
}

void kyNetServerProcess::stop()
{
    m_pipe.shutdown();
    m_stopRequested = true;
}

void kyNetServerProcess::sendSocket(kySocketLink& link, double timeout)
{
    link.sendDescriptor(m_pipe, timeout);
}
