// The board's hardware log.

#include "groups.h"

#include "bci/bciHwLog.h"

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;
using tools::Failure;

std::string countText(std::size_t count)
{
    return (count == 0 ? "no" : std::to_string(count)) + (count == 1 ? " entry" : " entries");
}

class HwLog : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.requireCommand();
        base::Syntax& get = app.addCommand("get", "Read a log; the unit sends what fits into a signal");
        addLogId(get);
        base::Syntax& set =
            app.addCommand("set", "Write entries behind those of a log; 2 is the node configuration");
        addLogId(set);
        set.addOption("--label", m_label, "The label that the entries are kept under")
            .required()
            .check([](const std::string& text) {
                constexpr auto longest = sizeof(TarnBcHwLogSetReqS::logLabel) - 1;
                return text.size() <= longest ? std::string()
                                              : "at most " + std::to_string(longest) + " characters: " + text;
            });
        set.addOption("ENTRY", m_entries, "A text; all together have room for 424 bytes, one more each")
            .check([](const std::string& text) { return text.empty() ? "an entry is empty" : ""; });
        set.onGiven([this] {
            m_isSet = true;
            const auto size = packedEntries().size();
            return size <= BCI_HWLOG_ENTRIES_SIZE
                       ? std::string()
                       : "ENTRY: the entries take " + std::to_string(size) + " bytes, there are " +
                             std::to_string(BCI_HWLOG_ENTRIES_SIZE);
        });
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        return m_isSet ? set(client, output) : get(client, output);
    }

private:
    void addLogId(base::Syntax& app)
    {
        app.addOption("ID", m_logId, "The log's number; the unit has 0 to 999").required();
    }

    /// Each with its NUL, one behind the other.
    [[nodiscard]] std::string packedEntries() const
    {
        std::string packed;
        for (const std::string& entry : m_entries) {
            packed += entry + '\0';
        }
        return packed;
    }

    ExitStatus set(BciClient& client, Output& output) const
    {
        auto req = tools::requestFrom<TarnBcHwLogSetReqS>(client);
        const std::string entries = packedEntries();
        m_label.copy(req.logLabel, sizeof(req.logLabel) - 1);
        req.logId = m_logId;
        req.length = static_cast<std::uint32_t>(m_entries.size());
        entries.copy(req.entries, sizeof(req.entries));
        return exchange<TarnBcHwLogSetReqS, TarnBcHwLogSetCfmS, TarnBcHwLogSetRejS>(
            client, output, req, [this](const TarnBcHwLogSetCfmS&) {
                return Told{countText(m_entries.size()) + " written to log " + std::to_string(m_logId),
                            {{"logId", m_logId}, {"label", m_label}, {"written", m_entries.size()}}};
            });
    }

    ExitStatus get(BciClient& client, Output& output) const
    {
        auto req = tools::requestFrom<TarnBcHwLogGetReqS>(client);
        req.logId = m_logId;
        const auto answer = client.request(toMessage(req), {TARN_BC_HWLOG_GET_CFM, TARN_BC_HWLOG_GET_REJ});
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            return fail(output, *failure);
        }
        const auto& signal = std::get<tools::Signal>(answer);
        const auto entries = hwLogEntriesIn(signal);
        if (!entries) {
            return fail(output, {ExitStatus::noAnswer,
                                 "the answer holds fewer entries than it says",
                                 {},
                                 TARN_BC_HWLOG_GET_CFM});
        }
        std::string text = "log " + std::to_string(m_logId) + " has " + countText(entries->size());
        for (const std::string& entry : *entries) {
            text += "\n  " + entry;
        }
        output.done(TARN_BC_HWLOG_GET_REQ, TARN_BC_HWLOG_GET_CFM, text,
                    withReferences(signal.addressInfo(), {{"logId", m_logId}, {"entries", *entries}}));
        return ExitStatus::done;
    }

    static ExitStatus fail(Output& output, const Failure& failure)
    {
        output.failed(TARN_BC_HWLOG_GET_REQ, failure);
        return failure.status;
    }

    std::uint32_t m_logId = 0;
    std::string m_label;
    std::vector<std::string> m_entries;
    bool m_isSet = false;
};

} // namespace

std::optional<std::vector<std::string>> hwLogEntriesIn(const tools::Signal& signal)
{
    const auto cfm = tools::decode<TarnBcHwLogGetCfmS>(signal);
    if (!cfm) {
        return std::nullopt;
    }
    std::vector<std::string> entries;
    std::string_view rest(cfm->entries, sizeof(cfm->entries));
    for (std::uint32_t i = 0; i < cfm->length; ++i) {
        const auto end = rest.find('\0');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(rest.data());
        entries.push_back(tools::textOf({bytes, end}));
        rest.remove_prefix(end + 1);
    }
    return entries;
}

std::unique_ptr<Command> makeHwLog()
{
    return std::make_unique<HwLog>();
}

} // namespace merlow::bcictl
