#include "virtualroom.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

namespace realserver {

CommandResult run(const std::string& command)
{
    CommandResult result;
    const std::string wrapped = "{ " + command + "\n} </dev/null 2>&1";
    FILE* pipe = popen(wrapped.c_str(), "r");
    if (!pipe) {
        result.output = "could not run: " + command;
        return result;
    }
    std::array<char, 4096> buffer;
    std::size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        result.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    result.status = (status != -1 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string shellQuote(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

bool haveProgram(const std::string& name)
{
    return run("command -v " + shellQuote(name) + " >/dev/null").status == 0;
}

VirtualRoom::VirtualRoom(std::string script, std::string stateFile, std::string leftovers)
    : m_script(std::move(script))
    , m_stateFile(std::move(stateFile))
    , m_leftovers(std::move(leftovers))
{
    startGuard();
}

VirtualRoom::~VirtualRoom()
{
    stop(nullptr);
    endGuard();
}

std::string VirtualRoom::command(const std::string& verb) const
{
    return "VIRTUAL_ROOM_STATE=" + shellQuote(m_stateFile) + " bash " + shellQuote(m_script) + " " + verb;
}

// The room's pulseaudio is a daemon that outlives this process. If the test
// is killed (a crash, ctest's timeout) before its teardown, a watcher in a
// session of its own stops the room: it waits on a pipe that only this
// process holds open, so the pipe's end is this process's end.
void VirtualRoom::startGuard()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    const pid_t pid = fork();
    if (pid != 0) {
        close(fds[0]);
        m_guardPipe = fds[1];
        m_guard = pid > 0 ? pid : -1;
        return;
    }
    setsid();
    // Keep nothing of the test's: ctest waits for its output pipe to close.
    const int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    for (int fd = 3; fd < 1024; ++fd) {
        if (fd != fds[0])
            close(fd);
    }
    char byte;
    ssize_t n;
    do
        n = read(fds[0], &byte, 1);
    while (n > 0 || (n < 0 && errno == EINTR));
    execl("/bin/bash", "bash", "-c", "VIRTUAL_ROOM_STATE=\"$2\" bash \"$1\" stop; [ -z \"$3\" ] || rm -rf -- \"$3\"",
          "virtual-room-guard", m_script.c_str(), m_stateFile.c_str(), m_leftovers.c_str(), static_cast<char*>(nullptr));
    _exit(127);
}

void VirtualRoom::endGuard()
{
    if (m_guard > 0) {
        kill(m_guard, SIGKILL);
        waitpid(m_guard, nullptr, 0);
    }
    if (m_guardPipe >= 0)
        close(m_guardPipe);
    m_guard = -1;
    m_guardPipe = -1;
}

bool VirtualRoom::start(const std::string& options, std::string* error)
{
    CommandResult r = run(command("start " + options));
    if (r.status != 0) {
        if (error)
            *error = "virtual-room.sh start " + options + " failed (" + std::to_string(r.status) + "):\n" + r.output;
        return false;
    }
    r = run(command("env"));
    if (r.status != 0) {
        if (error)
            *error = "virtual-room.sh env failed:\n" + r.output;
        return false;
    }
    // Lines of the form: export NAME=VALUE (the room's paths need no quoting).
    std::istringstream lines(r.output);
    std::string line;
    int exported = 0;
    while (std::getline(lines, line)) {
        const std::string prefix = "export ";
        const auto eq = line.find('=');
        if (line.compare(0, prefix.size(), prefix) != 0 || eq == std::string::npos)
            continue;
        std::string value = line.substr(eq + 1);
        if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'')
            value = value.substr(1, value.size() - 2);
        if (value.find_first_of("\\'\"$ ") != std::string::npos) {
            if (error)
                *error = "cannot use the room's environment line: " + line;
            return false;
        }
        setenv(line.substr(prefix.size(), eq - prefix.size()).c_str(), value.c_str(), 1);
        ++exported;
    }
    if (exported == 0) {
        if (error)
            *error = "virtual-room.sh env printed no environment:\n" + r.output;
        return false;
    }
    return true;
}

bool VirtualRoom::stop(std::string* error)
{
    const CommandResult r = run(command("stop"));
    if (r.status != 0 && error)
        *error = "virtual-room.sh stop failed:\n" + r.output;
    return r.status == 0;
}

bool VirtualRoom::talk(const std::string& wav, double afterSeconds, std::string* error)
{
    std::ostringstream after;
    after << afterSeconds;
    const CommandResult r = run(command("talk " + shellQuote(wav) + " --after " + after.str()));
    if (r.status != 0 && error)
        *error = "virtual-room.sh talk failed:\n" + r.output;
    return r.status == 0;
}

pid_t VirtualRoom::serverPid() const
{
    std::ifstream state(m_stateFile);
    std::string line;
    while (std::getline(state, line)) {
        if (line.compare(0, 4, "pid=") == 0)
            return static_cast<pid_t>(std::atol(line.c_str() + 4));
    }
    return 0;
}

bool VirtualRoom::isPulseProcess(pid_t pid)
{
    if (pid <= 0)
        return false;
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name == "pulseaudio";
}

namespace {

std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> result;
    std::istringstream in(line);
    std::string field;
    while (std::getline(in, field, '\t'))
        result.push_back(field);
    return result;
}

} // namespace

std::vector<ServerStream> VirtualRoom::streams(const char* kind, const char* devices, std::string* error) const
{
    std::vector<ServerStream> result;
    const CommandResult clients = run("pactl list clients");
    const CommandResult names = run(std::string("pactl list short ") + devices);
    const CommandResult list = run(std::string("pactl list short ") + kind);
    if (clients.status != 0 || names.status != 0 || list.status != 0) {
        if (error)
            *error = "pactl failed:\n" + clients.output + names.output + list.output;
        return result;
    }

    // Clients of this process, from "Client #N" blocks and their process id.
    std::map<std::string, bool> ours;
    const std::string self = "application.process.id = \"" + std::to_string(getpid()) + "\"";
    std::istringstream in(clients.output);
    std::string line, client;
    while (std::getline(in, line)) {
        if (line.compare(0, 8, "Client #") == 0)
            client = line.substr(8);
        else if (line.find(self) != std::string::npos)
            ours[client] = true;
    }

    std::map<std::string, std::string> deviceName;
    std::istringstream deviceLines(names.output);
    while (std::getline(deviceLines, line)) {
        const auto f = fields(line);
        if (f.size() >= 2)
            deviceName[f[0]] = f[1];
    }

    // index, sink or source index, client, driver, sample format
    std::istringstream streamLines(list.output);
    while (std::getline(streamLines, line)) {
        const auto f = fields(line);
        if (f.size() >= 5 && ours.count(f[2]))
            result.push_back(ServerStream{deviceName.count(f[1]) ? deviceName[f[1]] : "#" + f[1], f[4]});
    }
    return result;
}

std::vector<ServerStream> VirtualRoom::playbackStreams(std::string* error) const
{
    return streams("sink-inputs", "sinks", error);
}

std::vector<ServerStream> VirtualRoom::captureStreams(std::string* error) const
{
    return streams("source-outputs", "sources", error);
}

} // namespace realserver
