// Simulated reader for tests that drive the library against a peripheral.
//
//   TEST_F(SimTest, Something) {            // fixture form
//       sim().set_contact_card(card);
//       ... call the library (gPortName already names the simulator) ...
//   }
//
//   kolt::test::ScopedSimulator s;         // plain form, default options
//   s->inject(...);
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kolt_sim/frame.hpp"
#include "kolt_sim/simulator.hpp"

namespace kolt::test {

// Starts a simulator, points the library's gPortName at it and restores
// gPortName and stops the simulator when it goes out of scope.
class ScopedSimulator {
public:
    explicit ScopedSimulator(kolt::sim::Options options = {});
    ~ScopedSimulator();
    ScopedSimulator(const ScopedSimulator&) = delete;
    ScopedSimulator& operator=(const ScopedSimulator&) = delete;

    kolt::sim::Simulator& operator*() { return *sim_; }
    kolt::sim::Simulator* operator->() { return sim_.get(); }
    kolt::sim::Simulator& get() { return *sim_; }

private:
    std::unique_ptr<kolt::sim::Simulator> sim_;
    std::string saved_port_;
};

// gtest fixture: a running simulator for every test. Override options() to
// change the profile, the terminal or pacing.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    virtual kolt::sim::Options options() const { return {}; }

    kolt::sim::Simulator& sim() { return **sim_; }

private:
    std::unique_ptr<ScopedSimulator> sim_;
};

// SimTest with the library's link open on the simulator for every test
// (local port, terminal type 0), closed again afterwards.
class LinkedSimTest : public SimTest {
protected:
    void SetUp() override;
    void TearDown() override;
};

// The host end of the simulated line, for tests that talk to the simulator
// byte by byte instead of through the library.
class RawLine {
public:
    explicit RawLine(const std::string& path);  // opens raw, non-blocking
    ~RawLine();
    RawLine(const RawLine&) = delete;
    RawLine& operator=(const RawLine&) = delete;

    void write(const std::vector<uint8_t>& bytes);
    void write(const std::string& text);
    // Reads until n bytes have arrived or timeout_ms has passed.
    std::vector<uint8_t> read(size_t n, int timeout_ms);
    // Reads until `last` has arrived (included) or timeout_ms has passed.
    std::vector<uint8_t> read_until(uint8_t last, int timeout_ms);
    // Everything that arrives within ms.
    std::vector<uint8_t> read_for(int ms);
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// A simulator without the library: the test talks to it through a RawLine on
// the host end of its line.
class RawSimTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    virtual kolt::sim::Options options() const { return {}; }

    std::unique_ptr<kolt::sim::Simulator> sim;
    std::unique_ptr<RawLine> line;
};

// Any of the fixtures above with a fingerprint sensor of one kind:
//   using FramedTest = FingerSensorTest<SimTest, FramedSensor>;
struct FramedSensor {
    static constexpr const char* kType = "framed";
};
struct Ef01Sensor {
    static constexpr const char* kType = "ef01";
};
template <class Base, class Sensor>
class FingerSensorTest : public Base {
protected:
    kolt::sim::Options options() const override {
        kolt::sim::Options o;
        o.profile.finger.type = Sensor::kType;
        return o;
    }
};

// 0x02, the characters of `inner`, 0x03: a main frame written out.
std::vector<uint8_t> stx_etx(const std::string& inner);

// Bytes of a text (no terminating zero).
std::vector<uint8_t> text_bytes(const std::string& text);

// Path of a shipped simulator profile, e.g. sim_profile("default.json").
std::string sim_profile(const std::string& file);

}  // namespace kolt::test
