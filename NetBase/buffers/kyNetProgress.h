#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include <NetBase/kyNetBaseExport.h>

/// The one progress report of the process, and the wish to abort.
///
/// The application sets a handler that shows it; whoever works reports in units of its own:
///
///     kyNetProgress::start("rendering", tiles);
///     while (...) { ...; kyNetProgress::add(1); if (kyNetProgress::isAborting()) ... }
///
/// The handler hears of each whole percent once.
///
/// Threads: every member may be called from any thread. Only the sum of add() is exact under
/// concurrency: several reporters at once may bring the handler percentages out of order, and
/// it is called on their threads. The handler stays its owner's, who ends all reporting before
/// it is destroyed.
class KY_NETBASE_EXPORT kyNetProgress
{
public:
    /// Shows the progress; implemented by the application.
    class KY_NETBASE_EXPORT Handler
    {
    public:
        /// A task begins: its name, and 100.0, or 0.0 if nobody knows how much there is to do.
        virtual void start(const std::string& name, double total) = 0;

        /// It has come so far: in percent, and in whole percents; -1.0 and 0 if nobody knows.
        virtual void progress(double percent, double wholePercent) = 0;

        virtual ~Handler();
    };

    /// Sets the handler (null for none), with no progress and no wish to abort.
    static void set(Handler* handler);

    /// Removes the handler and the wish to abort.
    static void reset();

    /// Begins a task of `total` units; below 1, a task of unknown length. Without a handler only
    /// the progress is set back.
    static void start(const std::string& name, double total);

    /// The task has come to `value` units. In a task of unknown length the units of the last
    /// measured one hold.
    static void set(double value);

    /// The task has come `amount` units further.
    static void add(double amount);

    /// Asks whoever works to end early.
    static void abort();

    /// Whether it was asked to end early; long work looks now and then.
    static bool isAborting();

private:
    static void progressChanged();

    static std::atomic<Handler*> s_handler;
    static std::atomic<bool> s_isAborting;
    static std::atomic<double> s_progress;
    static std::atomic<double> s_progressScale;
    static std::atomic<int> s_lastProgressPercent;
    static std::mutex s_mutex;
};
