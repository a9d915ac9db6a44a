/// The board resource handler of the reference board: both its servers behind one process.
#pragma once

#include "bmmiServer.h"
#include "boardDescription.h"
#include "briServer.h"
#include "service.h"

namespace merlow::board {

class Brhd : public Service {
public:
    struct Config {
        BrhServerConfig bri;
        BrhServerConfig bmmi;
        LoadedBoard board{};
        std::string hwmonFolder{}; ///< the kernel's hwmon class; empty: all temperatures are simulated
        std::uint32_t seed = 1;    ///< of what is left to chance
        std::string ledFolder{};   ///< where the machine has its LEDs
    };

    /// `systemClock` gives milliseconds since 1970.
    Brhd(Config config, const BoardRestart::Clock& systemClock, BoardStores stores, Outbox& outbox);

    std::string name() const override { return "brhd"; }
    std::string controlMailboxName() const override { return "BrhdControl"; }
    std::vector<std::string> mailboxNames() const override;
    void attach(const std::string& mailboxName, MailboxId mailbox) override;

    void begin() override;
    void receive(const Received& received) override;
    void mailboxGone(MailboxId mailbox) override;
    void answered(const ControlAnswer& answer) override;

    nlohmann::json status() const override;
    std::vector<AnswerKind> kinds() const override;
    AnswerPlans& plans() override { return m_plans; }
    std::optional<AnswerKind> findKind(const std::string& kind) const override;
    ControlAnswer lose(const std::string& server, std::optional<std::uint32_t> ref) override;
    ControlAnswer clear() override;
    ControlAnswer control(const std::string& command, const nlohmann::json& request) override;

private:
    ControlAnswer describe() const;
    BrhServer* serverNamed(const std::string& name);

    const LoadedBoard m_board;
    Outbox& m_outbox;
    AnswerPlans m_plans;
    BriServer m_bri;
    BmmiServer m_bmmi;
};

} // namespace merlow::board
