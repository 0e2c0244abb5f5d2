#include "search/case.h"

#include <algorithm>

#include "common/vanid_text.h"

namespace {

// Longer than both attempts with three images for 63 devices, plus all requests to go back that
// permanent faults can make.
sim::Microseconds timeLimit(const Case& searched) {
    const auto staying = std::count_if(searched.faults.begin(), searched.faults.end(),
                                       [](const Fault& fault) { return fault.last > fault.call; });
    return (500'000 + 1'000'000 * staying) * kSecond;
}

// Injects the faults at their calls.
class Injector : public sim::Interceptor {
public:
    explicit Injector(const Case& searchedCase) : searched(searchedCase) {}

    void atAcquisition() {
        if (callbacks > 0) {
            return;  // a callback's own
        }
        const std::size_t index = acquisitions.size();
        acquisitions.push_back({sim::VirtualTime::events.size(), packet, isRegistered});
        ++callbacks;
        for (const Fault& fault : searched.faults) {
            if (fault.place == Place::Lock && fault.call == index) {
                fault.strike(*bus);
            }
        }
        --callbacks;
    }

    std::optional<sim::InjectedResult> before(const sim::Call& call) override {
        constexpr std::size_t kMostCalls = 1'000'000;  // more than the longest wait makes
        const std::size_t index = calls++;
        if (index == kMostCalls) {
            throw sim::TimeLimitReached();
        }
        if (sim::isCallback(call.function)) {
            ++callbacks;
            return std::nullopt;
        }
        if (call.function == sim::Function::SetTransferCallback) {
            packet.reset();
        } else if (call.function == sim::Function::Data) {
            packet = call.given[0];
        }
        isRegistered |= call.text == talm::slotText(true);
        return strike(call, index);
    }

    void after(const sim::Call& call) override {
        callbacks -= sim::isCallback(call.function) ? 1 : 0;
    }

    sim::Bus* bus = nullptr;
    std::vector<Acquisition> acquisitions;

private:
    std::optional<sim::InjectedResult> strike(const sim::Call& call, std::size_t index) {
        std::optional<sim::InjectedResult> result;
        if (searched.failsToClear && call.text == talm::slotText(false)) {
            result = sim::InjectedResult{-1};
        }
        for (const Fault& fault : searched.faults) {
            if (fault.place == Place::Lock || index < fault.call ||
                index > std::max(fault.call, fault.last)) {
                continue;
            }
            if (fault.strike) {
                fault.strike(*bus);
            } else if (fault.function == call.function && fault.device == deviceOf(call)) {
                result = fault.result;
            }
        }
        return result;
    }

    const Case& searched;
    std::size_t calls = 0;
    int callbacks = 0;                   // under way
    std::optional<std::int64_t> packet;  // in flight
    bool isRegistered = false;
};

}  // namespace

Case::Case(const std::string& itsName, int orvins, const std::vector<std::string>& arguments,
           const std::vector<Image>& itsImages)
    : name(itsName) {
    setup.arguments = arguments;
    setup.arguments.insert(setup.arguments.end(), {"-m", MemorySystem::kStatusFile});
    for (int number = 1; number <= orvins; ++number) {
        setup.bus.members.push_back(orvin(number));
    }
    for (const Image& image : itsImages) {
        addImage(image);
    }
}

bool Case::has(const std::string& argument) const {
    const auto& all = setup.arguments;
    return std::find(all.begin(), all.end(), argument) != all.end();
}

void Case::addImage(const Image& image) {
    images.push_back(image);
    setup.arguments.push_back(image.name);
    setup.files[image.name] = image.file;
}

Case Case::with(const Fault& fault) const {
    Case more = *this;
    more.name += "; call " + std::to_string(fault.call) +
                 (fault.last > fault.call ? " to " + std::to_string(fault.last) : "") + ", " +
                 fault.device + ' ' + fault.what;
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

ToolRun runCase(const Case& searched, std::vector<Acquisition>* acquisitions) {
    Injector injector(searched);
    ToolSetup setup = searched.setup;
    setup.timeLimit = timeLimit(searched);
    setup.onOpen = [&](sim::Bus& bus) { injector.bus = &bus; };
    ToolRun run = runTool(setup, &injector, [&](const std::string& call) {
        if (call == "lock 2") {  // the message writer's mutex is the first
            injector.atAcquisition();
        }
    });
    if (acquisitions != nullptr) {
        *acquisitions = std::move(injector.acquisitions);
    }
    return run;
}

std::string deviceOf(const sim::Call& call) {
    return call.device ? formatVanid(*call.device) : "";
}
