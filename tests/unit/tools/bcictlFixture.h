/// bcictl against a unit with fixed answers.
#pragma once

#include "bciCommand.h"
#include "fakeUnit.h"
#include "hex.h"
#include "lineSource.h"
#include "program.h"
#include "session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <unistd.h>

namespace merlow::bcictl {

using tools::FakeUnit;

/// What a client that asked for 300 gets: 301.
inline const std::string references = "00000001 0000012d";
inline const FakeUnit::Answers connects = {{0x1658000, {{0x1658001, references}}}};

/// `hex` and zeros behind it, `size` bytes together.
inline std::string padded(const std::string& hex, std::size_t size)
{
    auto text = tools::toHex(tools::bytesOf(hex));
    text.resize(size * 2, '0');
    return text;
}

class BcictlTest : public testing::Test {
protected:
    void startUnit(FakeUnit::Answers answers)
    {
        answers.insert(connects.begin(), connects.end());
        m_unit = std::make_unique<FakeUnit>(std::move(answers));
    }

    int run(std::vector<const char*> words)
    {
        words.insert(words.begin(), "bcictl");
        m_out.str("");
        m_err.str("");
        return runProgram(static_cast<int>(words.size()), words.data(), m_out, m_err);
    }

    tools::RunFolder m_runFolder;
    std::unique_ptr<FakeUnit> m_unit;
    std::ostringstream m_out;
    std::ostringstream m_err;
};

class SessionTest : public BcictlTest {
protected:
    tools::ExitStatus session(const std::string& input)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        EXPECT_EQ(write(ends[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
        close(ends[1]);
        Output output(m_out, m_err, {.program = "bcictl"});
        tools::BciClient client({.timeout = std::chrono::milliseconds(3000)});
        EXPECT_FALSE(client.connect());
        client.onIndication([&output](const tools::Signal& signal) { tellIndication(output, signal); });
        tools::Session session(client, output, commandTable());
        const auto source = tools::makePipeSource(ends[0], {client.fd(), [&session] {
                                                                return session.serve();
                                                            }});
        const auto status = session.run(*source);
        close(ends[0]);
        return status;
    }
};

} // namespace merlow::bcictl
