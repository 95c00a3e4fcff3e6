#include "throwsites.h"

#include <fstream>

namespace Gilvane {

unsigned int lineOfThrow(const std::string& file, const std::string& message, int occurrence) {
    for (const char* const ending : {".h", ".cpp"}) {
        std::ifstream source(GILVANE_LIBRARY "/" + file + ending);
        bool messageSeen = false; // a long message stands in a constant above its throw
        unsigned int number = 0;
        for (std::string line; std::getline(source, line);) {
            ++number;
            messageSeen = messageSeen || line.find('"' + message + '"') != std::string::npos;
            if (messageSeen && line.find("throw GVException(") != std::string::npos) {
                messageSeen = false;
                if (--occurrence == 0) {
                    return number;
                }
            }
        }
    }
    return 0;
}

} // namespace Gilvane
