#include "driver.h"

#include "pooldriver.h"
#include "tabledriver.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <numeric>

namespace Gilvane::driver {

namespace {

[[noreturn]] void report(const std::string& what, const Driver& driver) {
    std::fprintf(stderr, "the library differs from the model: %s\nafter the calls\n%s", what.c_str(),
                 driver.calls().c_str());
    std::fflush(nullptr);
    std::abort();
}

unsigned int sumOf(const Bytes& program) { return std::accumulate(program.begin(), program.end(), 0U); }

std::unique_ptr<Driver> makeDriver(const Bytes& program) {
    const auto subject = static_cast<Subject>(program[0] % 4);
    return subject == pools ? makePoolDriver(program[1]) : makeTableDriver(subject);
}

} // namespace

void throwDifference(const char* what, const std::string& library, const std::string& model) {
    throw Difference{std::string(what) + ": " + library + " in the library, " + model + " in the model"};
}

Run run(const Bytes& program, Comparison comparison) {
    Run result;
    if (program.size() < 2) {
        return result;
    }
    arena::begin();
    const std::unique_ptr<Driver> driver = makeDriver(program);
    const bool whereChosen = comparison == Comparison::whereChosen;
    const auto compare = [&driver](bool fields, bool views) {
        if (fields) {
            driver->compareFields();
        }
        if (views) {
            const arena::Aside aside;
            driver->compareViews();
        }
    };
    try {
        for (std::size_t position = 2; position + 3 <= program.size(); position += 3) {
            const unsigned char a = program[position + 1];
            result.lastMade = driver->make({program[position], a, program[position + 2]});
            result.made += result.lastMade ? 1 : 0;
            result.passedOver += result.lastMade ? 0 : 1;
            compare(result.lastMade && (!whereChosen || (a & chosen) == chosen),
                    result.lastMade && comparison == Comparison::afterEach);
        }
        compare(whereChosen, whereChosen ? sumOf(program) % programsPerView == 0
                                         : result.lastMade && comparison == Comparison::viewsAfterLast);
        driver->finish(comparison);
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
