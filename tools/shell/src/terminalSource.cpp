// The terminal as a source of lines: libedit asks for one character at a time, and while it waits for one the
// watch is served.

#include "lineSource.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <histedit.h>
#include <unistd.h>

namespace merlow::tools {

namespace {

constexpr int historyLength = 500;

class TerminalSource : public LineSource {
public:
    TerminalSource(Terminal terminal, Watch watch)
        : m_terminal(std::move(terminal)), m_watch(std::move(watch))
    {
        m_edit.reset(el_init(m_terminal.program, stdin, stdout, stderr));
        m_history.reset(history_init());
        if (!m_edit || !m_history) {
            return;
        }
        HistEvent event;
        history(m_history.get(), &event, H_SETSIZE, historyLength);
        history(m_history.get(), &event, H_SETUNIQUE, 1);
        EditLine* const edit = m_edit.get();
        el_set(edit, EL_CLIENTDATA, this);
        el_set(edit, EL_PROMPT, &TerminalSource::prompt);
        el_set(edit, EL_EDITOR, "emacs");
        el_set(edit, EL_SIGNAL, 1); // gives the terminal back before a signal ends the program
        el_set(edit, EL_HIST, history, m_history.get());
        el_set(edit, EL_ADDFN, "complete-command", "Completes the name of a command",
               &TerminalSource::complete);
        el_set(edit, EL_BIND, "^I", "complete-command", nullptr);
        el_set(edit, EL_GETCFN, &TerminalSource::readCharacter);
        el_source(edit, nullptr);
    }

    [[nodiscard]] bool isUsable() const { return m_edit && m_history; }

    std::optional<std::string> next() override
    {
        int length = 0;
        const char* const text = el_gets(m_edit.get(), &length);
        if (text == nullptr || length <= 0) {
            return std::nullopt;
        }
        std::string line(text, static_cast<std::size_t>(length));
        while (line.ends_with('\n') || line.ends_with('\r')) {
            line.pop_back();
        }
        if (!line.empty()) {
            HistEvent event;
            history(m_history.get(), &event, H_ENTER, line.c_str());
        }
        return line;
    }

private:
    static TerminalSource& self(EditLine* edit)
    {
        void* data = nullptr;
        el_get(edit, EL_CLIENTDATA, &data);
        return *static_cast<TerminalSource*>(data);
    }

    /// The editor wants it writable and leaves it as it is.
    static char* prompt(EditLine* edit) { return const_cast<char*>(self(edit).m_terminal.prompt); }

    static int readCharacter(EditLine* edit, wchar_t* character) { return self(edit).readOne(character); }

    int readOne(wchar_t* character)
    {
        std::mbstate_t state{};
        for (;;) {
            bool isReadable = false;
            const Watch clearing{m_watch.fd, [this] {
                                     return serve();
                                 }};
            if (!waitServing(STDIN_FILENO, clearing, isReadable)) {
                return 0;
            }
            char byte = 0;
            if (!isReadable) {
                continue;
            }
            if (read(STDIN_FILENO, &byte, 1) != 1) {
                return 0;
            }
            const auto used = std::mbrtowc(character, &byte, 1, &state);
            if (used == static_cast<std::size_t>(-1)) {
                state = {}; // no character of this locale: drop it
            } else if (used != static_cast<std::size_t>(-2)) {
                return 1;
            }
        }
    }

    /// What comes while somebody types goes above the line, which then stands again as it was.
    bool serve()
    {
        (void)std::fputs("\r\033[K", stdout);
        (void)std::fflush(stdout);
        const bool goesOn = m_watch.onReadable();
        if (goesOn) {
            el_set(m_edit.get(), EL_REFRESH);
        }
        return goesOn;
    }

    static unsigned char complete(EditLine* edit, int /*key*/)
    {
        const LineInfo* const info = el_line(edit);
        const std::string_view typed(info->buffer, static_cast<std::size_t>(info->cursor - info->buffer));
        const std::string* match = nullptr;
        for (const std::string& command : self(edit).m_terminal.commands) {
            if (command.starts_with(typed)) {
                if (match != nullptr) {
                    return CC_REFRESH_BEEP;
                }
                match = &command;
            }
        }
        if (match == nullptr) {
            return CC_REFRESH_BEEP;
        }
        const std::string rest = match->substr(typed.size()) + ' ';
        return el_insertstr(edit, rest.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
    }

    struct EditEnd {
        void operator()(EditLine* edit) const { el_end(edit); }
    };
    struct HistoryEnd {
        void operator()(History* entries) const { history_end(entries); }
    };

    Terminal m_terminal;
    Watch m_watch;
    std::unique_ptr<History, HistoryEnd> m_history;
    std::unique_ptr<EditLine, EditEnd> m_edit;
};

} // namespace

std::unique_ptr<LineSource> makeTerminalSource(Terminal terminal, Watch watch)
{
    auto source = std::make_unique<TerminalSource>(std::move(terminal), std::move(watch));
    if (!source->isUsable()) {
        return nullptr;
    }
    return source;
}

} // namespace merlow::tools
