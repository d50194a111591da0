#include "server/faults.h"

#include <charconv>

#include "platform/text.h"

namespace kestrova::server {
namespace {

constexpr std::string_view kFaultErrorDomain = "KestrovaServerFaults";
constexpr std::string_view kRetryAfterOption = ":retry-after=";
constexpr long long kLongestRetryAfter = 86'400;

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

std::optional<double> parseProbability(std::string_view text) {
  double value = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !(value >= 0.0) || value > 1.0) {
    return std::nullopt;
  }
  return value;
}

// Sums of decimal probabilities such as 0.15 + 0.15 + 0.7 may land a hair above 1.
constexpr double kProbabilityTolerance = 1e-9;

Result<Fault> faultFromJson(const nlohmann::json& entry, std::string_view member) {
  return entry.is_number_integer() ? Fault::parse(std::to_string(entry.get<int>()))
         : entry.is_string()
             ? Fault::parse(entry.get<std::string>())
             : Result<Fault>(faultError("\"" + std::string(member) + "\" needs a fault"));
}

}  // namespace

Result<Fault> Fault::parse(std::string_view text) {
  text = trimmed(text);
  if (text == "pass") {
    return Fault{};
  }
  if (text == "drop") {
    return Fault{Kind::drop, 0, {}, {}};
  }
  if (text.starts_with("delay:")) {
    const auto ms = parseInteger(text.substr(6));
    if (!ms || *ms < 0) {
      return faultError("delay needs milliseconds, as in delay:1500: " + std::string(text));
    }
    return Fault{Kind::delay, 0, std::chrono::milliseconds(*ms), {}};
  }
  std::optional<int> retryAfter;
  if (const auto colon = text.find(kRetryAfterOption); colon != std::string_view::npos) {
    const auto seconds = parseInteger(text.substr(colon + kRetryAfterOption.size()));
    if (!seconds || *seconds < 0 || *seconds > kLongestRetryAfter) {
      return faultError("retry-after needs seconds, as in 503:retry-after=2: " + std::string(text));
    }
    retryAfter = static_cast<int>(*seconds);
    text = text.substr(0, colon);
  }
  const auto status = parseInteger(text);
  if (!status || *status < 100 || *status > 599) {
    return faultError("not a fault (pass, drop, delay:MS or a status 100-599): " +
                      std::string(text));
  }
  return Fault{Kind::status, static_cast<int>(*status), {}, retryAfter};
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
      return std::to_string(status) +
             (retryAfter ? std::string(kRetryAfterOption) + std::to_string(*retryAfter) : "");
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

Result<std::vector<WeightedFault>> FaultPlan::parseMix(std::string_view text) {
  std::vector<WeightedFault> mix;
  if (trimmed(text).empty()) {
    return mix;
  }
  for (;;) {
    const auto comma = text.find(',');
    const auto entry = trimmed(text.substr(0, comma));
    const auto equals = entry.rfind('=');
    if (equals == std::string_view::npos) {
      return faultError("a mix entry is FAULT=PROBABILITY, as in 503=0.15: " + std::string(entry));
    }
    auto fault = Fault::parse(entry.substr(0, equals));
    if (!fault) {
      return fault.error();
    }
    const auto probability = parseProbability(trimmed(entry.substr(equals + 1)));
    if (!probability) {
      return faultError("a mix probability is a number from 0 to 1: " + std::string(entry));
    }
    mix.push_back({*fault, *probability});
    if (comma == std::string_view::npos) {
      break;
    }
    text.remove_prefix(comma + 1);
  }
  FaultPlan plan;
  plan.mix = mix;
  if (auto error = plan.probabilityError()) {
    return *error;
  }
  return mix;
}

std::optional<Error> FaultPlan::probabilityError() const {
  double total = rate;
  for (const auto& weighted : mix) {
    total += weighted.probability;
  }
  if (total > 1.0 + kProbabilityTolerance) {
    return faultError("the fault probabilities add up to " + std::to_string(total) +
                      ", more than 1");
  }
  return std::nullopt;
}

Result<FaultPlan> FaultPlan::fromJson(const nlohmann::json& json) {
  if (!json.is_object()) {
    return faultError("fault plan must be a JSON object");
  }
  FaultPlan plan;
  if (auto script = json.find(kScriptKey); script != json.end()) {
    if (script->is_string()) {
      auto parsed = parseScript(script->get<std::string>());
      if (!parsed) {
        return parsed.error();
      }
      plan.script = std::move(parsed).value();
    } else if (script->is_array()) {
      for (const auto& entry : *script) {
        auto fault = faultFromJson(entry, kScriptKey);
        if (!fault) {
          return fault.error();
        }
        plan.script.push_back(*fault);
      }
    } else {
      return faultError("\"script\" must be a text or an array");
    }
  }
  if (auto rate = json.find(kRateKey); rate != json.end()) {
    if (!rate->is_number() || rate->get<double>() < 0.0 || rate->get<double>() > 1.0) {
      return faultError("\"rate\" must be a number from 0 to 1");
    }
    plan.rate = rate->get<double>();
  }
  if (auto rateFault = json.find(kRateFaultKey); rateFault != json.end()) {
    auto fault = faultFromJson(*rateFault, kRateFaultKey);
    if (!fault) {
      return fault.error();
    }
    plan.rateFault = *fault;
  }
  if (auto mix = json.find(kMixKey); mix != json.end()) {
    if (mix->is_string()) {
      auto parsed = parseMix(mix->get<std::string>());
      if (!parsed) {
        return parsed.error();
      }
      plan.mix = std::move(parsed).value();
    } else if (mix->is_array()) {
      for (const auto& entry : *mix) {
        const auto fault = entry.is_object() && entry.contains(kMixFaultKey)
                               ? faultFromJson(entry[kMixFaultKey], kMixFaultKey)
                               : Result<Fault>(faultError("a mix entry is {\"fault\", \"p\"}"));
        if (!fault) {
          return fault.error();
        }
        const auto probability = entry.find(kMixProbabilityKey);
        if (probability == entry.end() || !probability->is_number() ||
            !(probability->get<double>() >= 0.0) || probability->get<double>() > 1.0) {
          return faultError("a mix entry's \"p\" must be a number from 0 to 1");
        }
        plan.mix.push_back({*fault, probability->get<double>()});
      }
    } else {
      return faultError("\"rates\" must be a text or an array");
    }
  }
  if (auto error = plan.probabilityError()) {
    return *error;
  }
  if (auto seed = json.find(kSeedKey); seed != json.end()) {
    if (!seed->is_number_unsigned()) {
      return faultError("\"seed\" must be a non-negative integer");
    }
    plan.seed = seed->get<std::uint64_t>();
  }
  if (auto prefix = json.find(kPathPrefixKey); prefix != json.end()) {
    if (!prefix->is_string()) {
      return faultError("\"path_prefix\" must be a text");
    }
    plan.pathPrefix = prefix->get<std::string>();
  }
  return plan;
}

nlohmann::json FaultPlan::toJson() const {
  nlohmann::json scriptJson = nlohmann::json::array();
  for (const auto& fault : script) {
    scriptJson.push_back(fault.text());
  }
  nlohmann::json mixJson = nlohmann::json::array();
  for (const auto& weighted : mix) {
    mixJson.push_back(
        {{kMixFaultKey, weighted.fault.text()}, {kMixProbabilityKey, weighted.probability}});
  }
  return {{kScriptKey, scriptJson}, {kRateKey, rate}, {kRateFaultKey, rateFault.text()},
          {kMixKey, mixJson},       {kSeedKey, seed}, {kPathPrefixKey, pathPrefix}};
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
  if (plan_.rate <= 0.0 && plan_.mix.empty()) {
    return Fault{};
  }
  // One draw per request: the rate fault and the mix share [0, 1) in turn, the rest passes.
  double draw = std::uniform_real_distribution<double>(0.0, 1.0)(random_);
  if (draw < plan_.rate) {
    return plan_.rateFault;
  }
  draw -= plan_.rate;
  for (const auto& weighted : plan_.mix) {
    if (draw < weighted.probability) {
      return weighted.fault;
    }
    draw -= weighted.probability;
  }
  return Fault{};
}

}  // namespace kestrova::server
