// UTC time.

#include "groups.h"

#include "bci/bciTime.h"

#include <charconv>
#include <ctime>

namespace merlow::bcictl {

namespace {

using tools::BciClient;
using tools::ExitStatus;

std::string calendarText(std::uint32_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    char text[32] = "";
    if (gmtime_r(&time, &fields) != nullptr) {
        (void)std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &fields);
    }
    return text;
}

class Utc : public Command {
public:
    void addOptions(base::Syntax& app) override
    {
        app.addOption("TIME", m_time, "\"now\", or seconds since 1970-01-01 00:00:00 UTC")
            .required()
            .check([](const std::string& text) {
                return parse(text) ? std::string()
                                   : "neither \"now\" nor a number from 0 to 4294967295: " + text;
            });
    }

    ExitStatus run(BciClient& client, Output& output) override
    {
        auto req = tools::requestFrom<TarnBcSetUtcTimeReqS>(client);
        req.utcTime = parse(m_time).value_or(0);
        return exchange<TarnBcSetUtcTimeReqS, TarnBcSetUtcTimeCfmS, TarnBcSetUtcTimeRejS>(
            client, output, req, [&req](const TarnBcSetUtcTimeCfmS&) {
                return Told{"time set to " + std::to_string(req.utcTime) + " (" + calendarText(req.utcTime) +
                                ")",
                            {{"utcTime", req.utcTime}}};
            });
    }

private:
    static std::optional<std::uint32_t> parse(const std::string& text)
    {
        if (text == "now") {
            return static_cast<std::uint32_t>(std::time(nullptr));
        }
        std::uint32_t seconds = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
        if (error != std::errc() || end != text.data() + text.size()) {
            return std::nullopt;
        }
        return seconds;
    }

    std::string m_time;
};

} // namespace

std::unique_ptr<Command> makeUtc()
{
    return std::make_unique<Utc>();
}

} // namespace merlow::bcictl
