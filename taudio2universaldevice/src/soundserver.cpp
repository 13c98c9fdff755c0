// What a PulseAudio server, or PipeWire's PulseAudio service, says of itself,
// asked through libpulse beside RtAudio, which does not tell.
#include "taudio2universaldevice_p.h"

#include <algorithm>

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop.h>

#include <dirent.h>
#include <sched.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

namespace tamrel {

PulseServerInfo askPulseServer()
{
    PulseServerInfo answer;
    pa_mainloop* loop = pa_mainloop_new();
    pa_context* context = loop ? pa_context_new(pa_mainloop_get_api(loop), "taudio2 server query") : nullptr;
    if (context && pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
        bool asked = false;
        // A server that does not answer within a second counts as absent.
        for (const int64_t deadline = steadyNowNs() + 1000000000; !answer.answered && steadyNowNs() < deadline;) {
            if (pa_mainloop_iterate(loop, 0, nullptr) < 0)
                break;
            const pa_context_state_t state = pa_context_get_state(context);
            if (!PA_CONTEXT_IS_GOOD(state))
                break;
            if (state == PA_CONTEXT_READY && !asked) {
                asked = true;
                pa_operation* operation = pa_context_get_server_info(
                    context,
                    [](pa_context*, const pa_server_info* info, void* data) {
                        PulseServerInfo& a = *static_cast<PulseServerInfo*>(data);
                        a.answered = true;
                        a.hasDefaults = info && info->default_sink_name && info->default_source_name;
                        a.pipeWire = info && info->server_name && std::strstr(info->server_name, "PipeWire");
                    },
                    &answer);
                if (operation)
                    pa_operation_unref(operation);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        pa_context_disconnect(context);
    }
    if (context)
        pa_context_unref(context);
    if (loop)
        pa_mainloop_free(loop);
    return answer;
}

std::vector<pid_t> pulseClientThreads()
{
    std::vector<pid_t> threads;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* task = tasks ? readdir(tasks) : nullptr) {
        std::string name;
        std::getline(std::ifstream(std::string("/proc/self/task/") + task->d_name + "/comm"), name);
        if (name == "threaded-ml")
            threads.push_back(static_cast<pid_t>(std::atoi(task->d_name)));
    }
    if (tasks)
        closedir(tasks);
    return threads;
}

int raiseNewPulseClientThreads(const std::vector<pid_t>& before, int priority)
{
    int raised = 0;
    sched_param parameters{};
    parameters.sched_priority = priority;
    for (const pid_t thread : pulseClientThreads()) {
        if (std::find(before.begin(), before.end(), thread) == before.end())
            raised += sched_setscheduler(thread, SCHED_RR, &parameters) == 0;
    }
    return raised;
}

} // namespace tamrel
