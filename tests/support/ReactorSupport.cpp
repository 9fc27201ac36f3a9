#include "ReactorSupport.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "VEL_EpollIOReactor.h"
#include "VEL_SelectIOReactor.h"

namespace veltest {

bool ScriptedHandler::call(const char* name, const std::function<bool()>& hook) {
    {
        std::lock_guard<std::mutex> hold(_lock);
        _calls.push_back(name);
    }
    _changed.notify_all();
    return hook ? hook() : true;
}

std::vector<std::string> ScriptedHandler::calls() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _calls;
}

int ScriptedHandler::count(const std::string& name) const {
    std::lock_guard<std::mutex> hold(_lock);
    return static_cast<int>(std::count(_calls.begin(), _calls.end(), name));
}

bool ScriptedHandler::waitFor(const std::string& name, int times,
                              std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> hold(_lock);
    return _changed.wait_for(
            hold, limit, [&] { return std::count(_calls.begin(), _calls.end(), name) >= times; });
}

FakeIOReactor::FakeIOReactor(unsigned long size, bool spin)
    : VEL_IOReactor(size, basis::TimeValue(0, 200000)), _spin(spin) {}

void FakeIOReactor::script(unsigned int handle, unsigned short ops) {
    {
        std::lock_guard<std::mutex> hold(_lock);
        _script.push_back(VELReadyHandle_t{handle, ops});
    }
    _changed.notify_all();
}

std::vector<std::string> FakeIOReactor::backEndCalls() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _calls;
}

int FakeIOReactor::wakeUps() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _wakeUps;
}

VELErr_t FakeIOReactor::record(const std::string& call) {
    std::lock_guard<std::mutex> hold(_lock);
    _calls.push_back(call);
    return kVELErr_Ok;
}

VELErr_t FakeIOReactor::waitForEvents(const basis::TimeValue* timeout) {
    std::vector<VELReadyHandle_t> ready;
    {
        std::unique_lock<std::mutex> hold(_lock);
        const auto woken = [this] { return _spin || _woken || !_script.empty() || isStopped(); };
        if (timeout == nullptr) {
            _changed.wait(hold, woken);
        } else if (!_changed.wait_for(hold, std::chrono::microseconds(timeout->toMicroseconds()),
                                      woken)) {
            return kVELErr_Timeout;
        }
        if (isStopped()) {
            return kVELErr_ReactorStopped;
        }
        _woken = false;
        ready.swap(_script);
    }
    return reportReady(ready.data(), ready.size());
}

VELErr_t FakeIOReactor::wakeUp() {
    {
        std::lock_guard<std::mutex> hold(_lock);
        ++_wakeUps;
        _woken = true;
    }
    _changed.notify_all();
    return kVELErr_Ok;
}

bool Drain(int fd) {
    char buffer[512];
    ssize_t got = 0;
    while ((got = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0) {
    }
    return got < 0 && errno == EAGAIN;
}

void StopAndClean(VEL_IOReactor& reactor) {
    EXPECT_EQ(reactor.stop(), kVELErr_Ok);
    EXPECT_EQ(reactor.wait(), basis::kErr_Ok);
    EXPECT_EQ(reactor.clean(), kVELErr_Ok);
    EXPECT_EQ(reactor.getNbElement(), 0u);
}

std::unique_ptr<VEL_IOReactor> MakeSelectReactor(unsigned long size,
                                                 const basis::TimeValue& idleTimeout) {
    return std::unique_ptr<VEL_IOReactor>(new VEL_SelectIOReactor(size, idleTimeout));
}

std::unique_ptr<VEL_IOReactor> MakeEpollReactor(unsigned long size,
                                                const basis::TimeValue& idleTimeout) {
    return std::unique_ptr<VEL_IOReactor>(new VEL_EpollIOReactor(size, idleTimeout));
}

std::string BackEndName(const ::testing::TestParamInfo<ReactorFactory>& tested) {
    return tested.param == &MakeSelectReactor  ? std::string("Select")
           : tested.param == &MakeEpollReactor ? std::string("Epoll")
                                               : "BackEnd" + std::to_string(tested.index);
}

}  // namespace veltest
