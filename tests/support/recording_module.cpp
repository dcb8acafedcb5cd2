#include "recording_module.h"

#include <map>

#include "syslog_capture.h"

namespace corvex_test {
namespace {
int create_result = 1;
char module_storage;
char timer_storage;
zrmodule* const kModule = reinterpret_cast<zrmodule*>(&module_storage);
std::map<std::string, zrmodule_timer_func> timers;

const char* pointer_text(const void* pointer) {
    return pointer == nullptr ? "null" : pointer == kModule ? "module" : "other";
}

std::string duration_text(const utime_t* time) {
    return time == nullptr ? "null"
                           : fmt("%lds+%ldus", static_cast<long>(time->ut_sec), static_cast<long>(time->ut_usec));
}
}  // namespace

std::vector<std::string>& module_calls() {
    static std::vector<std::string> calls;
    return calls;
}

void module_create_result(int result) { create_result = result; }

zrmodule_timer_func recorded_timer(const std::string& name) {
    const auto found = timers.find(name);
    return found == timers.end() ? nullptr : found->second;
}

}  // namespace corvex_test

using namespace corvex_test;

extern "C" {

zrmodule* zrmodule_alloc(const char* name, int stack_kib, void* context) {
    module_calls().push_back(fmt("alloc(%s, %d, %s)", name, stack_kib, pointer_text(context)));
    return kModule;
}

int zrmodule_create(zrmodule* module) {
    module_calls().push_back(fmt("create(%s)", pointer_text(module)));
    return create_result;
}

void zrmodule_quit(int code) { module_calls().push_back(fmt("quit(%d)", code)); }

zrmodule_timer* zrmodule_timer_ucreate(zrmodule* module, const char* name, flag_t flags, utime_t* initial,
                                       utime_t* interval, u_int count, zrmodule_timer_func func, void_t context) {
    module_calls().push_back(fmt("timer(%s, %s, %u, %s, %s, %u, %s, %s)", pointer_text(module), name, flags,
                                 duration_text(initial).c_str(), duration_text(interval).c_str(), count,
                                 func != nullptr ? "func" : "null", pointer_text(context)));
    timers[name] = func;
    return reinterpret_cast<zrmodule_timer*>(&timer_storage);
}

}  // extern "C"
