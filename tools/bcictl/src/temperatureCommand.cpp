// The unit's temperatures, measured again and again.

#include "groups.h"

#include "temperatures.h"

#include "bci/bciTemperature.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <limits>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace merlow::bcictl {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;
using tools::Signal;

/// Ctrl-C and its like as something to wait for, while the object lives: a second one, when it has gone, ends
/// the process.
class EndingSignals {
public:
    EndingSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
        m_fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~EndingSignals()
    {
        signalfd_siginfo came;
        while (read(m_fd, &came, sizeof(came)) > 0) {
        }
        close(m_fd);
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    EndingSignals(const EndingSignals&) = delete;
    EndingSignals& operator=(const EndingSignals&) = delete;

    [[nodiscard]] int fd() const { return m_fd; }

private:
    sigset_t m_before;
    int m_fd;
};

TemperaturePlot plotForTerminal()
{
    constexpr std::size_t usualWidth = 80;
    constexpr std::size_t mostLines = 18;
    winsize size{};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    // One line less and one column less than there are, or the terminal would scroll.
    return isKnown ? TemperaturePlot(size.ws_col - 1U, std::min<std::size_t>(size.ws_row - 1U, mostLines))
                   : TemperaturePlot(usualWidth - 1, mostLines);
}

class Temp : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("--period", m_period,
                      "Seconds from reading to reading, 1 to 30; in a session, 0 ends the measurement")
            .required()
            .range(0U, 255U);
        app.addOption("--count", m_count, "Stop after so many readings, not on Ctrl-C alone")
            .range(std::size_t{1}, std::numeric_limits<std::size_t>::max());
        app.addFlag("--plot", m_plots, "Draw the readings as lines; rows when this is no terminal");
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        if (!client.hasIndicationHandler()) {
            return measure(client, output);
        }
        if (m_count != 0 || m_plots) {
            output.misused("--count and --plot are not for a session, which shows readings as they come");
            return ExitStatus::usage;
        }
        return exchange<TarnBcTempMeasStartReq, TarnBcTempMeasStartCfmS, TarnBcTempMeasStartRejS>(
            client, output, request(client, m_period), [this](const TarnBcTempMeasStartCfmS&) {
                return Told{m_period == 0 ? "stopped measuring"
                                          : "measuring every " + std::to_string(m_period) + " s",
                            {{"period", m_period}}};
            });
    }

private:
    static TarnBcTempMeasStartReq request(const BciClient& client, unsigned period)
    {
        auto req = tools::requestFrom<TarnBcTempMeasStartReq>(client);
        req.hotSpotMeasurementPeriod = static_cast<std::uint8_t>(period);
        return req;
    }

    /// Asks for a period and waits for the answer.
    static std::optional<Failure> order(BciClient& client, unsigned period)
    {
        const auto answer = client.request(toMessage(request(client, period)),
                                           {TARN_BC_TEMP_MEAS_START_CFM, TARN_BC_TEMP_MEAS_START_REJ});
        const auto* const failure = std::get_if<Failure>(&answer);
        return failure != nullptr ? std::optional(*failure) : std::nullopt;
    }

    ExitStatus measure(BciClient& client, Output& output)
    {
        if (m_plots && output.isTerminal()) {
            m_plot.emplace(plotForTerminal());
        }
        client.onIndication([this, &output](const Signal& signal) { take(output, signal); });
        auto failure = startAndWait(client);
        m_isDone = true; // what still comes is nobody's
        if (!failure) {
            failure = order(client, 0);
        }
        client.onIndication({});
        if (failure) {
            output.failed(TARN_BC_TEMP_MEAS_START_REQ, *failure);
            return failure->status;
        }
        output.done(TARN_BC_TEMP_MEAS_START_REQ, TARN_BC_TEMP_MEAS_START_CFM,
                    (m_plot ? m_plot->text() + "\n" : "") + std::to_string(m_taken) +
                        (m_taken == 1 ? " reading" : " readings"),
                    withReferences(client.references(), {{"period", m_period}, {"readings", m_taken}}));
        return ExitStatus::done;
    }

    void take(Output& output, const Signal& signal)
    {
        const auto temperatures = decodeTemperatures(signal);
        if (!temperatures) {
            tellIndication(output, signal);
            return;
        }
        if (m_isDone) {
            return;
        }
        m_lastTaken = steady_clock::now();
        ++m_taken;
        m_isDone = m_taken == m_count;
        if (m_plot) {
            m_plot->add(*temperatures);
            output.transient(m_plot->text());
        } else {
            tellTemperatures(output, *temperatures);
        }
    }

    /// Until there are enough readings, or somebody has had enough.
    std::optional<Failure> startAndWait(BciClient& client)
    {
        const EndingSignals signals;
        if (auto failure = order(client, m_period)) {
            return failure;
        }
        const auto limit = std::chrono::seconds(m_period) + client.timeout();
        m_lastTaken = steady_clock::now();
        while (!m_isDone) { // readings may come before the confirm
            std::array<pollfd, 2> fds{{{client.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}}};
            const auto left =
                std::chrono::duration_cast<milliseconds>(m_lastTaken + limit - steady_clock::now());
            if (left.count() <= 0) {
                return Failure{ExitStatus::noAnswer, "no reading came in time", {}};
            }
            const int ready = poll(fds.data(), fds.size(), static_cast<int>(left.count()) + 1);
            if (ready < 0 && errno != EINTR) {
                return Failure{ExitStatus::noAnswer, "readings cannot be waited for", {}};
            }
            client.drain();
            if (client.isLost()) {
                return Failure{ExitStatus::noUnit, "the unit went away", {}};
            }
            if (ready > 0 && fds[1].revents != 0) {
                break;
            }
        }
        return std::nullopt;
    }

    unsigned m_period = 0;
    std::size_t m_count = 0; ///< 0: until Ctrl-C
    bool m_plots = false;
    std::optional<TemperaturePlot> m_plot;
    std::size_t m_taken = 0;
    bool m_isDone = false;
    steady_clock::time_point m_lastTaken;
};

} // namespace

std::unique_ptr<Command> makeTemp()
{
    return std::make_unique<Temp>();
}

} // namespace merlow::bcictl
