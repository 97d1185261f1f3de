#include "faults.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <charconv>

#include "sys.h"

namespace vxsim::drv {

std::optional<FaultAction> parse_fault_action(std::string_view text) {
    FaultAction a;
    a.text = std::string(text);
    if (text == "ebusy")
        a.error = EBUSY;
    else if (text == "enosys")
        a.error = ENOSYS;
    else if (text == "eio")
        a.error = EIO;
    else if (text == "refuse")
        a.error = EINVAL;
    else if (text == "short")
        a.kind = FaultKind::Short;
    else if (text == "partial") {
        a.kind = FaultKind::Partial;
        a.error = EIO;
    }
    else if (text.starts_with("status:")) {
        std::string_view num = text.substr(7);
        int base = 10;
        if (num.starts_with("0x") || num.starts_with("0X")) {
            num.remove_prefix(2);
            base = 16;
        }
        uint32_t v = 0;
        auto [end, ec] = std::from_chars(num.data(), num.data() + num.size(), v, base);
        if (num.empty() || ec != std::errc() || end != num.data() + num.size())
            return std::nullopt;
        a.kind = FaultKind::Status;
        a.status = v;
    } else
        return std::nullopt;
    return a;
}

bool fault_matches(std::string_view pattern, std::string_view text) {
    if (pattern.empty())
        return true;
    if (pattern.back() == '*')
        return text.starts_with(pattern.substr(0, pattern.size() - 1));
    return pattern == text || (text.size() > pattern.size() && text.starts_with(pattern) && text[pattern.size()] == '/');
}

std::optional<FaultAction> fault_take_from(const std::string& faults_path, std::string_view endpoint,
                                           std::string_view match_text) {
    sys::Locked lock(faults_path, O_RDWR);
    if (!lock.ok())
        return std::nullopt;
    std::string text;
    if (!sys::read_all(lock.fd(), text))
        return std::nullopt;
    nlohmann::json list = nlohmann::json::parse(text, nullptr, false);
    if (!list.is_array())
        return std::nullopt;

    for (auto it = list.begin(); it != list.end(); ++it) {
        const nlohmann::json& f = *it;
        if (!f.is_object())
            continue;
        auto str = [&](const char* key) -> std::string {
            auto k = f.find(key);
            return k != f.end() && k->is_string() ? k->get<std::string>() : std::string();
        };
        if (str("endpoint") != endpoint || !fault_matches(str("match"), match_text))
            continue;
        std::optional<FaultAction> action = parse_fault_action(str("action"));
        if (!action)
            continue;
        int64_t count = 1;
        if (auto c = f.find("count"); c != f.end()) {
            if (!c->is_number_integer())
                continue;
            count = c->get<int64_t>();
        }
        if (count == -1)
            return action;  // armed for ever: nothing to write back
        if (count <= 0)
            continue;
        if (count == 1)
            list.erase(it);
        else
            (*it)["count"] = count - 1;
        std::string out = list.dump(2) + "\n";
        sys::replace_content(lock.fd(), out.data(), out.size());
        return action;
    }
    return std::nullopt;
}

}  // namespace vxsim::drv
