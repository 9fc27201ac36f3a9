#include "VEL_Encryptor.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_CryptoTools.h"
#include "VEL_TimerManager.h"
#include "VEL_Tools.h"

namespace {

using Clock = std::chrono::steady_clock;

class EncryptorProbe : public VEL_Encryptor {
public:
    using VEL_Encryptor::SetLastSessionID;
};

basis::BoundedString<16> keyOf(const char* text) {
    return basis::BoundedString<16>(text, 16);
}

class EncryptorTest : public ::testing::Test {
protected:
    void TearDown() override {
        _encryptor->setInactivityTimeout(0);
        for (unsigned long id : _opened) {
            _encryptor->closeSession(id);
        }
        VEL_TimerManager::CloseSingleton();
    }

    unsigned long open() {
        _opened.push_back(_encryptor->openSession(keyOf("0123456789abcdef")));
        return _opened.back();
    }

    // Whether session `id` is still in the table (encryption does not count as use).
    bool isOpen(unsigned long id) const {
        char block[8];
        char* out = block;
        unsigned long length = 0;
        return _encryptor->encrypt("12345678", out, 8, length, id) == kVELErr_Ok;
    }

    VEL_Encryptor* _encryptor = VEL_Encryptor::Instance();
    std::vector<unsigned long> _opened;
};

TEST_F(EncryptorTest, IDsWrapBelowTwoToTheTwentyFourSkippingOpenSessions) {
    EncryptorProbe::SetLastSessionID(0);
    EXPECT_EQ(open(), 1u);
    EXPECT_EQ(open(), 2u);
    EncryptorProbe::SetLastSessionID(16777214);
    EXPECT_EQ(open(), 16777215u);
    EXPECT_EQ(open(), 3u);  // 1 and 2 are still open
    _encryptor->closeSession(2);
    EncryptorProbe::SetLastSessionID(16777215);
    EXPECT_EQ(open(), 2u);
}

TEST_F(EncryptorTest, UnknownIDsFailQuietlyOrTraceAndThrow) {
    basis::BoundedString<16> key = keyOf("k\0y with a zero!");
    const basis::BoundedString<16> original = key;
    const unsigned long closed = _encryptor->openSession(key);
    EXPECT_EQ(key, original);  // the mask goes onto a private copy
    _encryptor->closeSession(closed);
    _encryptor->closeSession(closed);  // unknown: nothing happens
    const std::string message = "Unknown secure session ID";
    for (const unsigned short flags : {kVELTrace_Thread, kVELTrace_ComError}) {  // off, on
        veltest::RecordingSink sink(flags);
        veltest::ScopedSink installed(&sink);
        char block[8] = {'u', 'n', 't', 'o', 'u', 'c', 'h', 'd'};
        char* out = block;
        unsigned long length = 0;
        for (int call = 0; call < 2; ++call) {
            try {
                EXPECT_EQ(call == 0 ? _encryptor->encrypt("12345678", out, 8, length, closed)
                                    : _encryptor->decrypt("12345678", out, 8, closed),
                          kVELErr_InvalidKey);
                EXPECT_EQ(flags, kVELTrace_Thread) << "no exception";
            } catch (const std::runtime_error& error) {
                EXPECT_EQ(flags, kVELTrace_ComError);
                EXPECT_EQ(error.what(), message);
            }
            EXPECT_EQ(out, block);
            EXPECT_EQ(std::string(block, 8), "untouchd");
        }
        const std::string line =
                "COM -  " + VEL_Tools::GetErrStr(kVELErr_InvalidKey) + " ; " + message;
        EXPECT_EQ(sink.texts().size(), flags == kVELTrace_ComError ? 2u : 0u);
        for (const auto& traced : sink.lines()) {
            EXPECT_EQ(traced.text, line);
            EXPECT_EQ(traced.level, kVELLevel_Error);
            EXPECT_EQ(traced.file, "VEL_Encryptor.cpp");
        }
    }
}

TEST_F(EncryptorTest, CreateKeysTheSessionWithACopyOfTheCallersSchedule) {
    char key[] = "0123456789abcdef";
    char* schedule = nullptr;
    VEL_CryptoTools::GenerateCastKey(key, schedule);
    ASSERT_NE(schedule, nullptr);
    const std::string original(schedule, VEL_CryptoTools::kScheduleSize);
    const boost::shared_ptr<VEL_SecureSession> session =
            VEL_SecureSession::Create(static_cast<const char*>(schedule), 7);
    std::memset(schedule, 0, VEL_CryptoTools::kScheduleSize);  // the caller's block stays its own
    std::free(schedule);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->getSecureSessionID(), 7u);
    EXPECT_EQ(std::string(session->getPrivateKey(), VEL_CryptoTools::kScheduleSize), original);
}

TEST_F(EncryptorTest, UnusedSessionsExpireAndDecryptRestartsTheirTimer) {
    _encryptor->setInactivityTimeout(1);
    const Clock::time_point start = Clock::now();
    const unsigned long idle = open();
    const unsigned long used = open();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // time itself is the condition
    char block[8] = {};
    char* out = block;
    const Clock::time_point refreshed = Clock::now();
    ASSERT_EQ(_encryptor->decrypt(block, out, 8, used), kVELErr_Ok);

    // `idle` is encrypted with on every poll, and still expires.
    ASSERT_TRUE(veltest::WaitFor([&] { return !isOpen(idle); }, std::chrono::seconds(5)));
    const auto idleFor = Clock::now() - start;
    ASSERT_TRUE(veltest::WaitFor([&] { return !isOpen(used); }, std::chrono::seconds(5)));
    const auto usedFor = Clock::now() - refreshed;
    EXPECT_GE(idleFor, std::chrono::milliseconds(995));
    EXPECT_LE(idleFor, std::chrono::milliseconds(2500));
    EXPECT_GE(usedFor, std::chrono::milliseconds(995));
    EXPECT_LE(usedFor, std::chrono::milliseconds(2500));
}

TEST_F(EncryptorTest, ConcurrentOpenDecryptAndCloseWithTimersArmed) {
    _encryptor->setInactivityTimeout(1);
    const unsigned long shared = open();  // its timer is restarted by every thread at once
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, shared] {
            for (int round = 0; round < 200; ++round) {
                const unsigned long id = _encryptor->openSession(keyOf("concurrent keys!"));
                char block[8] = {};
                char* out = block;
                EXPECT_EQ(_encryptor->decrypt(block, out, 8, id), kVELErr_Ok);
                EXPECT_EQ(_encryptor->decrypt(block, out, 8, shared), kVELErr_Ok);
                _encryptor->closeSession(id);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

}  // namespace
