#include "server/faults.h"

#include <charconv>

namespace kestrova::server {
namespace {

constexpr std::string_view kFaultErrorDomain = "KestrovaServerFaults";

Error faultError(std::string description) {
  return Error{std::string(kFaultErrorDomain), 1, std::move(description)};
}

std::optional<long long> parseInteger(std::string_view text) {
  long long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') {
    text.remove_prefix(1);
  }
  while (!text.empty() && text.back() == ' ') {
    text.remove_suffix(1);
  }
  return text;
}

}  // namespace

Result<Fault> Fault::parse(std::string_view text) {
  text = trimmed(text);
  if (text == "pass") {
    return Fault{};
  }
  if (text == "drop") {
    return Fault{Kind::drop, 0, {}};
  }
  if (text.starts_with("delay:")) {
    const auto ms = parseInteger(text.substr(6));
    if (!ms || *ms < 0) {
      return faultError("delay needs milliseconds, as in delay:1500: " + std::string(text));
    }
    return Fault{Kind::delay, 0, std::chrono::milliseconds(*ms)};
  }
  const auto status = parseInteger(text);
  if (!status || *status < 100 || *status > 599) {
    return faultError("not a fault (pass, drop, delay:MS or a status 100-599): " +
                      std::string(text));
  }
  return Fault{Kind::status, static_cast<int>(*status), {}};
}

std::string Fault::text() const {
  switch (kind) {
    case Kind::pass:
      return "pass";
    case Kind::drop:
      return "drop";
    case Kind::delay:
      return "delay:" + std::to_string(delay.count());
    case Kind::status:
      return std::to_string(status);
  }
  return "pass";
}

Result<std::deque<Fault>> FaultPlan::parseScript(std::string_view text) {
  std::deque<Fault> script;
  if (trimmed(text).empty()) {
    return script;
  }
  for (;;) {
    const auto comma = text.find(',');
    auto fault = Fault::parse(text.substr(0, comma));
    if (!fault) {
      return fault.error();
    }
    script.push_back(*fault);
    if (comma == std::string_view::npos) {
      return script;
    }
    text.remove_prefix(comma + 1);
  }
}

Result<FaultPlan> FaultPlan::fromJson(const nlohmann::json& json) {
  if (!json.is_object()) {
    return faultError("fault plan must be a JSON object");
  }
  FaultPlan plan;
  if (auto script = json.find("script"); script != json.end()) {
    if (script->is_string()) {
      auto parsed = parseScript(script->get<std::string>());
      if (!parsed) {
        return parsed.error();
      }
      plan.script = std::move(parsed).value();
    } else if (script->is_array()) {
      for (const auto& entry : *script) {
        auto fault = entry.is_number_integer() ? Fault::parse(std::to_string(entry.get<int>()))
                     : entry.is_string()       ? Fault::parse(entry.get<std::string>())
                                               : Result<Fault>(faultError("script entry"));
        if (!fault) {
          return fault.error();
        }
        plan.script.push_back(*fault);
      }
    } else {
      return faultError("\"script\" must be a text or an array");
    }
  }
  if (auto rate = json.find("rate"); rate != json.end()) {
    if (!rate->is_number() || rate->get<double>() < 0.0 || rate->get<double>() > 1.0) {
      return faultError("\"rate\" must be a number from 0 to 1");
    }
    plan.rate = rate->get<double>();
  }
  if (auto rateFault = json.find("rate_fault"); rateFault != json.end()) {
    auto fault = rateFault->is_number_integer()
                     ? Fault::parse(std::to_string(rateFault->get<int>()))
                 : rateFault->is_string() ? Fault::parse(rateFault->get<std::string>())
                                          : Result<Fault>(faultError("\"rate_fault\""));
    if (!fault) {
      return fault.error();
    }
    plan.rateFault = *fault;
  }
  if (auto seed = json.find("seed"); seed != json.end()) {
    if (!seed->is_number_unsigned()) {
      return faultError("\"seed\" must be a non-negative integer");
    }
    plan.seed = seed->get<std::uint64_t>();
  }
  return plan;
}

nlohmann::json FaultPlan::toJson() const {
  nlohmann::json scriptJson = nlohmann::json::array();
  for (const auto& fault : script) {
    scriptJson.push_back(fault.text());
  }
  return {{"script", scriptJson}, {"rate", rate}, {"rate_fault", rateFault.text()}, {"seed", seed}};
}

void FaultInjector::reset(FaultPlan plan) {
  plan_ = std::move(plan);
  random_.seed(plan_.seed);
}

Fault FaultInjector::next() {
  if (!plan_.script.empty()) {
    Fault fault = plan_.script.front();
    plan_.script.pop_front();
    return fault;
  }
  if (plan_.rate > 0.0 && std::uniform_real_distribution<double>(0.0, 1.0)(random_) < plan_.rate) {
    return plan_.rateFault;
  }
  return Fault{};
}

}  // namespace kestrova::server
