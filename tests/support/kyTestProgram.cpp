#include <tests/support/kyTestProgram.h>

#include <stdexcept>

#include <QProcess>

#include <Utils/kyPlatform.h>
#include <tests/support/kyTestWait.h>

namespace kyTest {

namespace {

int patience()
{
    return static_cast<int>(std::chrono::milliseconds(2 * s_patience).count());
}

} // namespace

std::string programPath(const std::string& name)
{
    return KY_TEST_BINARY_DIR "/bin/" + name + kyPlatform::getProgramSuffix();
}

Program::Program(const std::string& path, const std::vector<std::string>& arguments)
    : m_process(std::make_unique<QProcess>())
{
    QStringList texts;
    for (const std::string& argument : arguments) {
        texts << QString::fromStdString(argument);
    }
    m_process->start(QString::fromStdString(path), texts);
    if (!m_process->waitForStarted(patience())) {
        throw std::runtime_error("Unable to start " + path);
    }
}

Program::~Program()
{
    m_process->kill();
    m_process->waitForFinished(patience());
}

std::string Program::readLine()
{
    while (!m_process->canReadLine()) {
        if (!m_process->waitForReadyRead(patience())) {
            throw std::runtime_error("The program says nothing: " +
                                     m_process->readAllStandardError().toStdString());
        }
    }
    return m_process->readLine().trimmed().toStdString();
}

void Program::terminate()
{
    terminateProcess(m_process->processId());
}

void Program::interrupt()
{
    interruptProcess(m_process->processId());
}

ProgramResult Program::wait()
{
    // False also for a program whose end was noticed already.
    m_process->waitForFinished(patience());
    ProgramResult result;
    if (m_process->state() == QProcess::NotRunning &&
        m_process->exitStatus() == QProcess::NormalExit) {
        result.exitCode = m_process->exitCode();
    }
    result.output = toText(m_process->readAllStandardOutput());
    result.errors = toText(m_process->readAllStandardError());
    return result;
}

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& arguments)
{
    return Program(path, arguments).wait();
}

} // namespace kyTest
