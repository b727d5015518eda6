/*
 * The console's output and, on a terminal, its line editor (libedit):
 * editing keys, history (kept in ~/.avconsole_history), tab completion of
 * the operation names, model commands and console commands, and trace
 * lines from other threads printed above the prompt without breaking the
 * line being typed.
 *
 * Threads: any thread prints through consolePrint(). While the prompt is
 * on the screen (the main thread waits in el_gets), a line from another
 * thread is queued and the main thread is woken through a pipe: it clears
 * the prompt line, prints the queue and draws the prompt and the typed
 * text again. At any other time lines are printed at once. gPrint guards
 * all of it and keeps every line whole.
 *
 * No signal handler is installed (other threads run): in the editor ^C is
 * an ordinary key that drops the typed line, and ^D on an empty line ends
 * the console.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include "console.h"

namespace console {

namespace {

struct PrintState {
    std::mutex mutex;                 // guards everything below and stdout
    bool promptShown = false;         // the main thread waits for a key at the prompt
    std::vector<std::string> pending; // lines queued while the prompt is shown
    int wakeRead = -1;                // the editor's wake-up pipe
    int wakeWrite = -1;
    EditLine *editor = nullptr;       // while the editor runs
    std::string prompt;
};

PrintState gPrint;

void writeAll(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

// Completion words: first words, and the words that may follow each
// "first second ..." path.
struct Completions {
    std::set<std::string> first;
    std::map<std::string, std::set<std::string>> next; // key: the words before, joined by ' '
};

Completions gCompletions;

// "dsp say <text> | silent on|off | fault checksum|len57|split on|off" ->
// the model's subcommands and the choices after them. Placeholders in
// <> or [] are skipped.
void addModelHelp(const std::string &name, const std::string &help)
{
    gCompletions.first.insert(name);
    size_t start = 0;
    for (;;) {
        const size_t bar = help.find(" | ", start);
        std::string segment = help.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
        if (start == 0 && segment.rfind(name + " ", 0) == 0)
            segment = segment.substr(name.size() + 1);
        std::vector<std::vector<std::string>> words;
        size_t pos = 0;
        while (pos < segment.size()) {
            size_t end = segment.find(' ', pos);
            if (end == std::string::npos)
                end = segment.size();
            const std::string word = segment.substr(pos, end - pos);
            pos = end + 1;
            if (word.empty())
                continue;
            std::vector<std::string> choices;
            size_t c = 0;
            for (;;) {
                const size_t pipe = word.find('|', c);
                const std::string choice = word.substr(c, pipe == std::string::npos ? std::string::npos : pipe - c);
                if (!choice.empty() && choice[0] != '<' && choice[0] != '[')
                    choices.push_back(choice);
                if (pipe == std::string::npos)
                    break;
                c = pipe + 1;
            }
            if (choices.empty())
                break; // a placeholder: nothing after it completes
            words.push_back(choices);
        }
        // Paths: name, name w1, name w1 w2 ... (each choice of a word).
        std::vector<std::string> paths = {name};
        for (const auto &choices : words) {
            std::vector<std::string> longer;
            for (const auto &path : paths)
                for (const auto &choice : choices) {
                    gCompletions.next[path].insert(choice);
                    longer.push_back(path + " " + choice);
                }
            paths = longer;
        }
        if (bar == std::string::npos)
            break;
        start = bar + 3;
    }
}

// The words before the one being completed, and that word's start.
void splitForCompletion(const std::string &line, std::string *path, std::string *word)
{
    std::vector<std::string> words;
    size_t pos = 0;
    while (pos < line.size()) {
        while (pos < line.size() && line[pos] == ' ')
            ++pos;
        size_t end = line.find(' ', pos);
        if (end == std::string::npos)
            end = line.size();
        if (end > pos)
            words.push_back(line.substr(pos, end - pos));
        pos = end;
    }
    if (!line.empty() && line.back() != ' ' && !words.empty()) {
        *word = words.back();
        words.pop_back();
    } else {
        word->clear();
    }
    path->clear();
    for (const auto &w : words)
        *path += (path->empty() ? "" : " ") + w;
}

unsigned char completeKey(EditLine *el, int)
{
    const LineInfo *info = el_line(el);
    const std::string before(info->buffer, static_cast<size_t>(info->cursor - info->buffer));
    std::string path, word;
    splitForCompletion(before, &path, &word);
    const std::set<std::string> *pool = nullptr;
    if (path.empty()) {
        pool = &gCompletions.first;
    } else {
        auto it = gCompletions.next.find(path);
        if (it == gCompletions.next.end())
            return CC_ERROR;
        pool = &it->second;
    }
    std::vector<std::string> matches;
    for (const auto &candidate : *pool)
        if (candidate.compare(0, word.size(), word) == 0)
            matches.push_back(candidate);
    if (matches.empty())
        return CC_ERROR;
    if (matches.size() == 1) {
        const std::string rest = matches[0].substr(word.size()) + " ";
        el_insertstr(el, rest.c_str());
        return CC_REFRESH;
    }
    // Extend to the longest common prefix; with nothing to add, list them.
    size_t common = matches[0].size();
    for (const auto &m : matches) {
        size_t k = 0;
        while (k < common && k < m.size() && m[k] == matches[0][k])
            ++k;
        common = k;
    }
    if (common > word.size()) {
        el_insertstr(el, matches[0].substr(word.size(), common - word.size()).c_str());
        return CC_REFRESH;
    }
    std::lock_guard<std::mutex> lock(gPrint.mutex);
    std::string list = "\n";
    size_t column = 0;
    for (const auto &m : matches) {
        if (column + m.size() + 2 > 100) {
            list += "\n";
            column = 0;
        }
        list += m + "  ";
        column += m.size() + 2;
    }
    writeAll(list + "\n");
    std::fflush(stdout);
    return CC_REDISPLAY;
}

// ^C: drop the typed line, as a shell does.
unsigned char dropLine(EditLine *el, int)
{
    const LineInfo *info = el_line(el);
    el_cursor(el, static_cast<int>(info->lastchar - info->cursor));
    el_deletestr(el, static_cast<int>(info->lastchar - info->buffer));
    std::lock_guard<std::mutex> lock(gPrint.mutex);
    writeAll("^C\n");
    std::fflush(stdout);
    return CC_REDISPLAY;
}

const char *promptText(EditLine *) { return gPrint.prompt.c_str(); }

// Prints the queued lines above the prompt, then the prompt and the typed
// text again with the cursor where it was (lines that fit the terminal's
// width come back exactly).
void printPendingAbovePrompt(EditLine *el)
{
    std::lock_guard<std::mutex> lock(gPrint.mutex);
    if (gPrint.pending.empty())
        return;
    std::string out = "\r\033[K";
    for (const auto &line : gPrint.pending)
        out += line + "\n";
    gPrint.pending.clear();
    const LineInfo *info = el_line(el);
    out += gPrint.prompt + std::string(info->buffer, static_cast<size_t>(info->lastchar - info->buffer));
    const long back = info->lastchar - info->cursor;
    if (back > 0)
        out += "\033[" + std::to_string(back) + "D";
    writeAll(out);
    std::fflush(stdout);
}

// The editor's key reader: waits for a key or for lines to print.
int readKey(EditLine *el, wchar_t *key)
{
    for (;;) {
        struct pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {gPrint.wakeRead, POLLIN, 0}};
        const int ready = poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (fds[1].revents & POLLIN) {
            char drain[64];
            while (read(gPrint.wakeRead, drain, sizeof drain) > 0) {
            }
            printPendingAbovePrompt(el);
        }
        if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
        unsigned char byte = 0;
        const ssize_t n = read(STDIN_FILENO, &byte, 1);
        if (n == 0)
            return 0;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return -1;
        }
        // UTF-8: the lead byte says how many follow.
        int more = byte < 0x80 ? 0 : (byte >> 5) == 6 ? 1 : (byte >> 4) == 14 ? 2 : (byte >> 3) == 30 ? 3 : -1;
        if (more < 0) {
            *key = L'?';
            return 1;
        }
        wchar_t value = more == 0 ? byte : byte & (0x3F >> more);
        for (int k = 0; k < more; ++k) {
            unsigned char next = 0;
            if (read(STDIN_FILENO, &next, 1) != 1)
                return 0;
            value = static_cast<wchar_t>((value << 6) | (next & 0x3F));
        }
        *key = value;
        return 1;
    }
}

std::string historyPath()
{
    const char *home = getenv("HOME");
    return home && *home ? std::string(home) + "/.avconsole_history" : std::string();
}

} // namespace

void consolePrint(const std::string &line)
{
    std::lock_guard<std::mutex> lock(gPrint.mutex);
    if (gPrint.promptShown) {
        gPrint.pending.push_back(line);
        if (gPrint.wakeWrite >= 0) {
            const char byte = 1;
            (void)!write(gPrint.wakeWrite, &byte, 1);
        }
        return;
    }
    writeAll(line + "\n");
    std::fflush(stdout);
}

void setCompletions(const std::vector<std::string> &words, const std::vector<std::string> &modelHelp,
                    const std::map<std::string, std::vector<std::string>> &choices)
{
    for (const auto &w : words)
        gCompletions.first.insert(w);
    for (const auto &help : modelHelp) {
        const size_t space = help.find(' ');
        addModelHelp(help.substr(0, space), help);
    }
    for (const auto &[path, next] : choices) {
        gCompletions.first.insert(path.substr(0, path.find(' ')));
        for (const auto &w : next)
            gCompletions.next[path].insert(w);
    }
}

void runLineEditor(const std::string &prompt, const std::function<bool(const std::string &line)> &handle)
{
    int wake[2];
    if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        consolePrint(std::string("cannot start the line editor: ") + std::strerror(errno));
        return;
    }
    EditLine *el = el_init("avconsole", stdin, stdout, stderr);
    History *hist = history_init();
    HistEvent event;
    history(hist, &event, H_SETSIZE, 1000);
    history(hist, &event, H_SETUNIQUE, 1);
    const std::string historyFile = historyPath();
    if (!historyFile.empty())
        history(hist, &event, H_LOAD, historyFile.c_str());
    {
        std::lock_guard<std::mutex> lock(gPrint.mutex);
        gPrint.wakeRead = wake[0];
        gPrint.wakeWrite = wake[1];
        gPrint.editor = el;
        gPrint.prompt = prompt;
    }
    el_set(el, EL_EDITOR, "emacs");
    el_set(el, EL_SIGNAL, 0);
    el_set(el, EL_PROMPT, promptText);
    el_set(el, EL_HIST, history, hist);
    el_set(el, EL_GETCFN, readKey);
    el_set(el, EL_ADDFN, "avm-complete", "complete the word", completeKey);
    el_set(el, EL_BIND, "^I", "avm-complete", nullptr);
    // ^C reaches the editor as a key instead of raising a signal.
    el_set(el, EL_SETTY, "-d", "-isig", nullptr);
    el_set(el, EL_ADDFN, "avm-drop-line", "drop the typed line", dropLine);
    el_set(el, EL_BIND, "^C", "avm-drop-line", nullptr);

    for (;;) {
        {
            std::lock_guard<std::mutex> lock(gPrint.mutex);
            gPrint.promptShown = true;
        }
        int count = 0;
        const char *text = el_gets(el, &count);
        std::vector<std::string> late;
        {
            std::lock_guard<std::mutex> lock(gPrint.mutex);
            gPrint.promptShown = false;
            late.swap(gPrint.pending);
        }
        for (const auto &line : late)
            consolePrint(line);
        if (text == nullptr || count <= 0) {
            consolePrint("");
            break;
        }
        std::string line(text, static_cast<size_t>(count));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        if (line.find_first_not_of(' ') != std::string::npos)
            history(hist, &event, H_ENTER, line.c_str());
        if (!handle(line))
            break;
    }
    if (!historyFile.empty())
        history(hist, &event, H_SAVE, historyFile.c_str());
    {
        std::lock_guard<std::mutex> lock(gPrint.mutex);
        gPrint.editor = nullptr;
        gPrint.wakeRead = -1;
        gPrint.wakeWrite = -1;
    }
    el_end(el);
    history_end(hist);
    // The pipe's numbers are handed back with nothing of ours open on
    // them; no other thread uses them.
    close(wake[0]);
    close(wake[1]);
}

} // namespace console
