// orvik: send, listen, fetch the registry and measure, from the shell, through
// the orvikm client library.
//
//   orvik [COMMON OPTIONS] send|listen|registry|bench [OPTIONS] [COMMON OPTIONS]
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <orviku/exception.hpp>

#include "common.hpp"

namespace {

struct Subcommand {
    const char* name;
    const char* summary;
    std::unique_ptr<orvik::Command> (*make)();
};

const Subcommand kSubcommands[] = {
    {"send", "Send messages and wait until the node has acknowledged them", orvik::makeSendCommand},
    {"listen", "Subscribe to topics and print the messages the node publishes",
     orvik::makeListenCommand},
    {"registry", "Fetch the node's registry once, or every few seconds",
     orvik::makeRegistryCommand},
    {"bench", "Send many messages as fast as the library allows and report rates and latencies",
     orvik::makeBenchCommand},
};

const char* const kFooter = R"(Environment:
  ORVIK_LISTENER_PORT, ORVIK_DISPENSER_PORT
                  the node's ports when -l or -d is not given; without either,
                  orvik stops with a usage error

Exit status:
  0  the work was done
  1  the work failed: the node could not be reached, the deadline passed, a
     message was not written or acknowledged, the library met an error it
     could not handle, or Ctrl-C came first (one line on standard error says
     which)
  2  the command line was wrong (the usage follows on standard error)

A closed standard output (orvik listen ... | head -1) ends a run the way
Ctrl-C does; no subcommand ends by a signal of its own.

Each subcommand has its own help: orvik SUBCOMMAND --help)";

// Follows each subcommand's own help, which lists only its own options.
const char* const kCommonOptions = R"(

Common options, before or after the subcommand (orvik --help says more):
  -l,--listener-port PORT, -d,--dispenser-port PORT
                  the node's ports (default: ORVIK_LISTENER_PORT and
                  ORVIK_DISPENSER_PORT from the environment)
  --app-id ID     the application id (default orvik-<pid>)
  --timeout SECONDS
                  the overall deadline (default 10; 0: none)
  -v,--verbose    say on standard error what is going on

Exit status: 0 the work was done, 1 it failed (one line on standard error
says why), 2 the command line was wrong)";

void defineCommonOptions(CLI::App& app, orvik::Common& common) {
    app.add_option("-l,--listener-port", common.listenerPort,
                   "The node's listener port, where it publishes messages")
        ->envname("ORVIK_LISTENER_PORT")
        ->check(CLI::Range(1, 65535))
        ->group("Common options");
    app.add_option("-d,--dispenser-port", common.dispenserPort,
                   "The node's dispenser port, where clients send")
        ->envname("ORVIK_DISPENSER_PORT")
        ->check(CLI::Range(1, 65535))
        ->group("Common options");
    app.add_option("--app-id", common.appId,
                   "The application id this run uses with the node (default orvik-<pid>); "
                   "every running client needs its own")
        ->check(CLI::Validator(
            [](std::string& id) {
                return id.empty() || id.size() > orvikm::Client::_max_app_id_size
                           ? "an application id has 1 to " +
                                 std::to_string(orvikm::Client::_max_app_id_size) + " bytes"
                           : std::string();
            },
            "1.." + std::to_string(orvikm::Client::_max_app_id_size) + " bytes"))
        ->group("Common options");
    app.add_option("--timeout", common.timeoutSeconds,
                   "Overall deadline in seconds, fractions allowed; 0: none")
        ->capture_default_str()
        ->check(CLI::NonNegativeNumber)
        ->group("Common options");
    app.add_flag("-v,--verbose", common.verbose, "Say on standard error what is going on")
        ->group("Common options");
}

std::string subcommandName(const CLI::App& app) {
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    return parsed.empty() ? "" : parsed[0]->get_name();
}

}  // namespace

int main(int argc, char** argv) {
    // First of all, so that Ctrl-C at any point ends the run cleanly.
    orvik::installStopHandler();
    orvik::Common common;
    CLI::App app(
        "orvik: send, listen, fetch the registry and measure through the Orvik Node "
        "on this machine",
        "orvik");
    app.set_version_flag("--version", std::string("orvik ") + ORVIK_VERSION);
    app.set_help_flag("-h,--help", "Print this help and exit");
    // The common options may also follow the subcommand.
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(kFooter);
    app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
        return "orvik: " + std::string(error.what()) + "\n\n" + failed->help();
    });
    defineCommonOptions(app, common);

    std::vector<std::unique_ptr<orvik::Command>> commands;
    std::vector<CLI::App*> subcommands;
    for (const Subcommand& entry : kSubcommands) {
        CLI::App* subcommand = app.add_subcommand(entry.name, entry.summary);
        subcommand->set_help_flag("-h,--help", "Print this help and exit");
        commands.push_back(entry.make());
        commands.back()->define(*subcommand);
        subcommand->footer(subcommand->get_footer() + kCommonOptions);
        subcommands.push_back(subcommand);
    }

    try {
        app.parse(argc, argv);
        if (common.listenerPort == 0 || common.dispenserPort == 0) {
            throw CLI::RequiredError(
                "the node's ports are needed: give -l/--listener-port and -d/--dispenser-port, "
                "or set ORVIK_LISTENER_PORT and ORVIK_DISPENSER_PORT",
                CLI::ExitCodes::RequiredError);
        }
        if (common.appId.empty()) {
            common.appId = "orvik-" + std::to_string(::getpid());
        }
        for (std::size_t i = 0; i < subcommands.size(); ++i) {
            if (subcommands[i]->parsed()) {
                return commands[i]->run(common);
            }
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? orvik::kSuccess : orvik::kUsage;
    } catch (const orviku::Exception& error) {
        orvik::reportFailure(subcommandName(app), orvik::oneLine(error));
        return orvik::kFailure;
    } catch (const std::exception& error) {
        // The library passes on what is not of its own family; whatever a
        // subcommand did not handle ends the run with one line, not a signal.
        orvik::reportFailure(subcommandName(app), orvik::unexpectedError(error));
        return orvik::kFailure;
    } catch (...) {
        orvik::reportFailure(subcommandName(app), "unexpected error of an unknown kind");
        return orvik::kFailure;
    }
    return orvik::kUsage;
}
