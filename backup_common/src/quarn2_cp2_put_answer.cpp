#include "quarn2_cp2_put_answer.h"

#include <stdexcept>

#include "kro/str.h"

Taken ParseAnswer(std::string answer) {
    if (answer.empty()) throw std::runtime_error("Command PUT result is empty");
    Taken taken;
    taken.name = str::GetWord(answer);
    if (taken.name.empty()) {
        throw std::runtime_error("Getting fname from result:'" + answer + "'");
    }
    taken.bytes = str::Int64(str::GetWord(answer));
    taken.key_hash = answer;
    return taken;
}
