// orvik registry: asks for the registry with obtainRegistry(), once or every
// few seconds, prints each one from the registry callback, and lends the main
// thread to blockThreadForIO until enough came or the deadline passed.
#include <climits>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <orvikm/orvikm.hpp>

#include "common.hpp"
#include "output.hpp"

namespace orvik {

namespace {

constexpr std::chrono::milliseconds kLoopTimeout(20);

const char* const kFooter =
    R"(Without --watch, orvik registry fetches the registry once and exits 0 once
it is printed. With --watch SECONDS it fetches it every SECONDS: COUNT times
with -n (exit 0 once all are printed), otherwise until the deadline
(--timeout; 0 for none) or Ctrl-C (exit 0). It exits 1 when the node cannot
be reached, or when the deadline or Ctrl-C comes before the registries
wanted. After Ctrl-C one line on standard error says how many it fetched:
  orvik registry: interrupted (fetched N)      or, with -n,
  orvik registry: interrupted (fetched N of COUNT)
A standard output that is closed ends it the same way, with "standard
output closed" for "interrupted".

raw prints each registry's bytes as they are, json pretty-prints a registry
that is JSON (and prints any other as raw does); a newline follows each
registry that does not end with one.

Example: orvik registry -l 5555 -d 5556 --format json)";

class RegistryCommand : public Command {
public:
    void define(CLI::App& subcommand) override {
        CLI::Option* watch =
            subcommand
                .add_option("--watch", _watchSeconds, "Fetch the registry every SECONDS seconds")
                ->check(CLI::Range(1ll, static_cast<long long>(INT_MAX)));
        _countOption =
            subcommand
                .add_option("-n,--count", _count, "With --watch: how many registries to fetch")
                ->check(CLI::Range(1ull, ULLONG_MAX))
                ->needs(watch);
        subcommand.add_option("--format", _format, "raw or json")
            ->capture_default_str()
            ->check(CLI::IsMember({"raw", "json"}));
        subcommand.footer(kFooter);
    }

    int run(const Common& common) override {
        const Deadline deadline(common.timeoutSeconds);
        const bool watching = _watchSeconds > 0;
        const bool counted = !watching || _countOption->count() > 0;
        const unsigned long long wanted = watching ? _count : 1;
        std::unique_ptr<orvikm::Client> client = makeClient(common, {});
        // Only a watch waits for the node to come back; one fetch fails.
        std::optional<NodeWatch> nodeWatch;
        if (watching) {
            nodeWatch.emplace(*client, common, "registry");
        }

        unsigned long long fetched = 0;
        bool outputClosed = false;
        // seconds::max() asks once; any other interval asks again and again.
        const std::chrono::seconds interval =
            watching ? std::chrono::seconds(_watchSeconds) : std::chrono::seconds::max();
        client->obtainRegistry(
            [&](std::shared_ptr<orvikm::Registry> registry) {
                if ((counted && fetched >= wanted) || outputClosed) {
                    return;
                }
                const orvikm::Payload& body = registry->payload();
                if (!writeOutput(output::registryText(
                        std::string_view(body.getBuffer(), body.size()), _format == "json"))) {
                    outputClosed = true;
                    client->terminate();
                    return;
                }
                if (++fetched == wanted && counted) {
                    client->terminate();
                }
            },
            interval);

        std::string error;
        LoopStopper::Reason stopped = LoopStopper::Reason::None;
        {
            const LoopStopper stopper(*client, deadline);
            for (;;) {
                bool away = false;
                try {
                    client->blockThreadForIO(
                        [&](orviku::Exception& failure) {
                            away = nodeWatch && nodeWatch->whileAway(failure);
                            if (!away) {
                                error = oneLine(failure);
                            }
                        },
                        kLoopTimeout);
                } catch (const std::exception& failure) {
                    error = unexpectedError(failure);
                }
                // A new loop forgets a terminate() from before it: the reasons
                // to stop are looked at here too.
                if (!away || stopper.reason() != LoopStopper::Reason::None ||
                    (counted && fetched >= wanted) || outputClosed) {
                    break;
                }
                std::this_thread::sleep_for(kLoopTimeout);
            }
            stopped = stopper.reason();
            if (error.empty() && counted && fetched < wanted) {
                error = outputClosed ? outputFailure() : stopper.describe();
            }
        }
        if (common.verbose) {
            std::cerr << "orvik registry: fetched " << fetched << " registries" << std::endl;
        }
        const std::string tally =
            "fetched " + std::to_string(fetched) + (counted ? " of " + std::to_string(wanted) : "");
        if (!error.empty()) {
            reportFailure("registry", error + " (" + tally + ")");
            return kFailure;
        }
        if (outputClosed) {
            reportFailure("registry", outputFailure() + " (" + tally + ")");
        } else if (stopped == LoopStopper::Reason::Interrupted) {
            reportFailure("registry", "interrupted (" + tally + ")");
        }
        return kSuccess;
    }

private:
    long long _watchSeconds = 0;
    CLI::Option* _countOption = nullptr;
    unsigned long long _count = 0;
    std::string _format = "raw";
};

}  // namespace

std::unique_ptr<Command> makeRegistryCommand() {
    return std::make_unique<RegistryCommand>();
}

}  // namespace orvik
