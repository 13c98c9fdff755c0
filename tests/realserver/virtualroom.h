// A private PulseAudio "room" (scripts/virtual-room.sh) for tests that run the
// device against a real sound server, and the shell plumbing around it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace realserver {

struct CommandResult {
    int status = -1;      // exit status, -1 when the command could not run
    std::string output;   // stdout and stderr together
};

// Runs a command through /bin/sh with stdin closed.
CommandResult run(const std::string& command);
std::string shellQuote(const std::string& text);
bool haveProgram(const std::string& name);

// One stream of this process as the server sees it.
struct ServerStream {
    std::string device;   // sink or source name, e.g. "speaker"
    std::string format;   // e.g. "s16le 1ch 48000Hz"
};

class VirtualRoom {
public:
    // stateFile keeps this room apart from any other room on the machine.
    // leftovers, if not empty, is a directory removed with the room when this
    // process ends without its teardown.
    VirtualRoom(std::string script, std::string stateFile, std::string leftovers = std::string());
    ~VirtualRoom();

    VirtualRoom(const VirtualRoom&) = delete;
    VirtualRoom& operator=(const VirtualRoom&) = delete;

    // Starts the room (or changes the echo path of the running one) and
    // points this process's PulseAudio clients at it. On failure *error
    // holds the script's output.
    bool start(const std::string& options, std::string* error);
    bool stop(std::string* error);
    // The near-end talker plays wav into the room after the given delay.
    bool talk(const std::string& wav, double afterSeconds, std::string* error);

    // The pid of the room's pulseaudio, 0 when there is none.
    pid_t serverPid() const;
    static bool isPulseProcess(pid_t pid);

    // Playback and capture streams that this process has open on the server.
    std::vector<ServerStream> playbackStreams(std::string* error) const;
    std::vector<ServerStream> captureStreams(std::string* error) const;

private:
    std::string command(const std::string& verb) const;
    std::vector<ServerStream> streams(const char* kind, const char* devices, std::string* error) const;
    void startGuard();
    void endGuard();

    std::string m_script;
    std::string m_stateFile;
    std::string m_leftovers;
    pid_t m_guard = -1;
    int m_guardPipe = -1;
};

} // namespace realserver
