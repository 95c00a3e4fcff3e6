#include "driver.h"

#include "arena.h"
#include "pooldriver.h"
#include "tabledriver.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

namespace Gilvane::driver {

namespace {

[[noreturn]] void report(const std::string& what, const Driver& driver) {
    std::fprintf(stderr, "the library differs from the model: %s\nafter the calls\n%s", what.c_str(),
                 driver.calls().c_str());
    std::fflush(nullptr);
    std::abort();
}

std::unique_ptr<Driver> makeDriver(const Bytes& program) {
    const auto subject = static_cast<Subject>(program[0] % 4);
    if (subject == pools) {
        return std::make_unique<PoolDriver>(program[1]);
    }
    return makeTableDriver(subject);
}

} // namespace

Run run(const Bytes& program, Views views) {
    Run result;
    if (program.size() < 2) {
        return result;
    }
    arena::begin();
    const std::unique_ptr<Driver> driver = makeDriver(program);
    try {
        for (std::size_t position = 2; position + 3 <= program.size(); position += 3) {
            result.lastMade = driver->make({program[position], program[position + 1], program[position + 2]});
            result.made += result.lastMade ? 1 : 0;
            result.passedOver += result.lastMade ? 0 : 1;
            if (views == Views::afterEach && result.lastMade) {
                driver->compareViews();
            }
        }
        if (views == Views::afterLast && result.lastMade) {
            driver->compareViews();
        }
        driver->finish();
    } catch (const Difference& difference) {
        report(difference.text, *driver);
    } catch (const std::exception& exception) {
        report(exception.what(), *driver);
    } catch (const GVException& exception) {
        report(exception.getMessage(), *driver);
    }
    if (const std::string misuse = arena::misuse(); !misuse.empty()) {
        report(misuse, *driver);
    }
    return result;
}

} // namespace Gilvane::driver
