#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>

#include <NetBase/kyNetBaseExport.h>

class exChild;

/// Starts a program and follows it to its end.
///
///     exProcess process;
///     process.addArgument("/opt/viewer");
///     process.setCommunication(exProcess::StandardOutput | exProcess::StandardError);
///     QObject::connect(&process, &exProcess::readyReadStandardOutput,
///                      [&] { show(process.readStandardOutput()); });
///     if (!process.start()) { ... }
///
/// It needs no event loop and no application object: the output is read, and the child's end is
/// noticed, by threads of its own. A program that could not be started is told by `start`; one
/// that ran and died is told by `isRunning`.
///
/// Ownership: the destructor kills a child that still runs, and returns when it is gone.
/// Thread rules: arguments and mode are set before `start`, by one thread. After that every
/// function may be called from any thread. The signals are emitted on a thread of the process
/// object: a handler connected directly runs there and must not destroy the object.
/// Limits: of captured output that nobody reads the last 16 MiB of each stream are kept.
class KY_NETBASE_EXPORT exProcess : public QObject
{
    Q_OBJECT

public:
    /// What is captured of the child's streams. What is not captured is discarded; the child
    /// never has anything to read.
    enum Communication
    {
        NoCommunication = 0,
        StandardOutput = 2,
        StandardError = 4
    };

    /// A process that is not started. The name is the object's name and means nothing else.
    explicit exProcess(QObject* parent = nullptr, const QString& name = QString());

    ~exProcess() override;

    /// Forgets all arguments, the program included.
    void clearArguments();

    /// Adds an argument; the first one is the path of the program, which is not searched for.
    void addArgument(const QString& argument);

    /// The arguments so far, the program first.
    const QStringList& arguments() const { return m_arguments; }

    /// Sets what is captured: a sum of `Communication` values, 6 for both streams.
    void setCommunication(int mode);

    /// Starts the program; true when it runs, false if it could not be started (no such file, no
    /// permission, no descriptors or threads left) or an earlier child of this object still runs.
    ///
    /// `environment` holds "NAME=value" texts; null passes on the environment of this process.
    /// `hasDisplay` tells whether the program may show itself on the desktop: without it a console
    /// window that the system would open stays hidden. Systems without such windows ignore it.
    bool start(const QStringList* environment = nullptr, bool hasDisplay = true);

    /// True from a successful start until the child has ended; right at once. Does not block.
    bool isRunning() const;

    /// The system's number for the child that was started last, 0 if there is none.
    std::uint32_t processId() const;

    /// Asks the child to end and returns at once; the child may refuse.
    void tryTerminate();

    /// Ends the child and returns at once.
    void kill();

    /// Takes what the child has written to its standard output and was not read yet.
    QByteArray readStandardOutput();

    /// Takes what the child has written to its standard error and was not read yet.
    QByteArray readStandardError();

Q_SIGNALS:
    /// The child has written to its standard output.
    void readyReadStandardOutput();

    /// The child has written to its standard error.
    void readyReadStandardError();

private:
    void followOutput(exChild& child);
    void append(QByteArray& unread, const std::string& arrived);
    void release();

    QStringList m_arguments;
    int m_communication = NoCommunication;

    mutable std::mutex m_mutex;
    QByteArray m_output;
    QByteArray m_error;
    std::unique_ptr<exChild> m_child;
    std::thread m_reader;
};
