#include "search/case.h"

#include <algorithm>

#include "common/vanid_text.h"

namespace {

// Longer than both attempts with three images for 63 devices, plus all requests to go back that
// permanent faults can make.
sim::Microseconds timeLimit(const Case& searched) {
    const auto staying = std::count_if(searched.faults.begin(), searched.faults.end(),
                                       [](const Fault& fault) { return fault.stays; });
    return (500'000 + 1'000'000 * staying) * kSecond;
}

// Injects the faults at their calls.
class Injector : public sim::Interceptor {
public:
    explicit Injector(const Case& searched) : faults(searched.faults) {}

    std::optional<sim::InjectedResult> before(const sim::Call& call) override {
        constexpr std::size_t kMostCalls = 1'000'000;  // more than in the longest wait
        const std::size_t index = calls++;
        if (index == kMostCalls) {
            throw sim::TimeLimitReached();
        }
        std::optional<sim::InjectedResult> result;
        if (failsToClear(call)) {
            result = sim::InjectedResult{-1};
        }
        for (const Fault& fault : faults) {
            const bool strikes = fault.call == index || (fault.stays && fault.call < index);
            if (strikes && !sim::isCallback(call.function)) {
                const auto own = strike(fault, call);
                result = own ? own : result;
            }
        }
        return result;
    }

    sim::Bus* bus = nullptr;

private:
    // A late callback needs a library that clears no callbacks.
    bool failsToClear(const sim::Call& call) const {
        return call.text == talm::slotText(false) &&
               std::any_of(faults.begin(), faults.end(),
                           [](const Fault& fault) { return fault.place == Place::Callback; });
    }

    void callBack(const Fault& fault) const {
        const vanid_t device = *parseStrictVanid(fault.device);
        if (fault.function == sim::Function::BusChangeCallback) {
            bus->reportBusChange(device, static_cast<std::uint32_t>(fault.value));
        } else {
            bus->reportTransferResult(device, {0, static_cast<std::int32_t>(fault.value), 0});
        }
    }

    std::optional<sim::InjectedResult> strike(const Fault& fault, const sim::Call& call) {
        if (fault.place == Place::Result) {
            const bool itsCall = call.function == fault.function && deviceOf(call) == fault.device;
            const sim::InjectedResult own{static_cast<int>(fault.value), fault.carriedOut};
            return itsCall ? std::optional(own) : std::nullopt;
        }
        if (fault.place == Place::Link) {
            bus->dropLink(fault.value);
        } else if (fault.place == Place::Callback) {
            if (letsCallbacksIn(call.function)) {
                callBack(fault);
            }
        } else if (fault.place == Place::Power) {
            bus->interrupt(*parseStrictVanid(fault.device), fault.value);
        } else {
            bus->addFault(*parseStrictVanid(fault.device), fault.packet);
        }
        return std::nullopt;
    }

    const std::vector<Fault>& faults;
    std::size_t calls = 0;
};

}  // namespace

bool Case::has(const std::string& argument) const {
    const auto& all = setup.arguments;
    return std::find(all.begin(), all.end(), argument) != all.end();
}

void Case::addImage(const Image& image) {
    images.push_back(image);
    setup.arguments.push_back(image.name);
    if (!image.file.empty()) {
        setup.files[image.name] = image.file;
    }
}

Case Case::with(const Fault& fault) const {
    Case more = *this;
    more.name += (fault.stays ? "; from call " : "; call ") + std::to_string(fault.call) + ", " +
                 fault.device + ' ' + fault.what + ' ' + std::to_string(fault.value);
    more.faults.push_back(fault);
    if (fault.harm == Harm::Device) {
        more.spoiled.insert(fault.device);
    } else {
        more.harm = std::max(harm, fault.harm);
    }
    return more;
}

Image imageOf(const std::string& name, std::uint32_t target, std::uint32_t version,
              std::size_t contentSize) {
    const std::string file = makeImage(target, version, contentSize);
    return {"mem:" + name, target, version, file, file.substr(file.size() - contentSize)};
}

ToolRun runCase(const Case& searched) {
    Injector injector(searched);
    ToolSetup setup = searched.setup;
    setup.timeLimit = timeLimit(searched);
    setup.onOpen = [&](sim::Bus& bus) { injector.bus = &bus; };
    int calls = 0;
    return runTool(setup, {&injector}, [&](SystemCall call, const std::string&) {
        const StatusFault& fault = searched.statusFault;
        return call == fault.call && ++calls == fault.number ? fault.error : 0;
    });
}

bool letsCallbacksIn(sim::Function function) {
    using sim::Function;
    return function != Function::OrvinInfo && function != Function::WriteRequest &&
           function != Function::CheckImage && function != Function::StartUpdate;
}

std::string deviceOf(const sim::Call& call) {
    return call.device ? formatVanid(*call.device) : "";
}
