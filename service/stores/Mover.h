#pragma once

#include "platform/process/ChildProcess.h"

#include <chrono>
#include <string>

/// A command of the site that moves data, while it runs: /bin/sh -c COMMAND in a process group of its own.
/// What goes wrong throws `Failure`: "PHRASE: reason: what the command said". It has code 7 if no byte of
/// data moved, or after the last byte the command did not end, for the time-out. Destroying a mover kills its
/// whole group. Belongs to one thread.
class Mover {
public:
    enum class Data {
        None, ///< it does something else
        In,   ///< on its standard input
        Out,  ///< on its standard output
    };

    Mover(std::string phrase, const std::string& command, Data data, std::chrono::seconds timeout);

    void write(const char* bytes, size_t size);
    /// Some bytes, at least one and at most `size`; 0 at the end.
    size_t read(char* buffer, size_t size);
    /// Exactly `size` bytes.
    void readAll(char* buffer, size_t size);

    /// Ends its input and waits for the command. Throws if it fails, leaves data unread, or has more to
    /// give.
    void finish();

private:
    bool waitUntilReady(short events);
    void takeText();
    [[noreturn]] void fail(int code, const std::string& reason);
    [[noreturn]] void failAtEnd(const std::string& reason);
    std::string howItEnded();

    std::string m_phrase;
    std::chrono::seconds m_timeout;
    Data m_data;
    Pipe
        m_pipe; ///< the data's; of an input this process keeps both ends, so that it sees what is left unread
    Pipe m_textPipe;
    std::string m_text; ///< what the command said
    ChildProcess m_child;
    UniqueFd m_end;
};
