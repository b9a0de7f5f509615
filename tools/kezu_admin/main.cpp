// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin: makes, examines and repairs configuration homes from the command line.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "access.h"
#include "commands.h"
#include "engine/store/home.h"

namespace {

struct Call {
  std::string home = engine::store::configuredHome();
  std::string passwordFile;
  std::vector<std::string> names;
  bool all = false;
  bool replace = false;
  std::function<int(const Call&)> run;
};

CLI::App* addCommand(CLI::App& app, Call& call, const std::string& name, const std::string& text,
                     std::function<int(const Call&)> run) {
  CLI::App* command = app.add_subcommand(name, text);
  command->add_option("--home", call.home, "the configuration home")->capture_default_str();
  command->callback([&call, run = std::move(run)] { call.run = run; });
  return command;
}

void addPasswordFile(CLI::App& command, Call& call) {
  command.add_option("--password-file", call.passwordFile, "file with the password value; - reads standard input")
      ->required();
}

// Names, or the word that stands for all of them: one of the two.
void addNames(CLI::App& command, Call& call) {
  CLI::Option_group* which = command.add_option_group("policies");
  which->add_option("NAME", call.names, "names of policies of the home");
  which->add_flag("--all", call.all, "every policy of the home");
  which->require_option(1);
}

void addServerCommands(CLI::App& app, Call& call) {
  CLI::App* kms = app.add_subcommand("kms", "work on the key management server that kezu.toml names");
  CLI::App* push = addCommand(*kms, call, "push", "register policies of the home on the server",
                              [](const Call& c) { return admin::pushPolicies(c.home, c.names, c.replace); });
  addNames(*push, call);
  push->add_flag("--replace", call.replace, "put the keys of the home in the place of those on the server");
  addCommand(*kms, call, "list", "show the policies on the server, without their keys",
             [](const Call& c) { return admin::listServer(c.home); });
  addCommand(*kms, call, "check", "connect, and show versions, certificates and times",
             [](const Call& c) { return admin::checkServer(c.home); });
  kms->require_subcommand(1);
}

void addCommands(CLI::App& app, Call& call) {
  addPasswordFile(*addCommand(app, call, "init", "make a home with the administrator \"admin\"",
                              [](const Call& c) { return admin::initHome(c.home, c.passwordFile); }),
                  call);
  addCommand(app, call, "status", "show counts, settings and file-check strings",
             [](const Call& c) { return admin::showStatus(c.home); });
  addCommand(app, call, "verify", "open and authenticate every file",
             [](const Call& c) { return admin::verifyHome(c.home); });
  addCommand(app, call, "dump", "write the tables as JSON, without keys and password values",
             [](const Call& c) { return admin::dumpHome(c.home); });
  addPasswordFile(*addCommand(app, call, "passwd", "change the password value of \"admin\"",
                              [](const Call& c) { return admin::changePassword(c.home, c.passwordFile); }),
                  call);
  addCommand(app, call, "rekey", "make a new master key, and seal every table under it",
             [](const Call& c) { return admin::changeMasterKey(c.home); });
  addServerCommands(app, call);
  app.require_subcommand(1);
}

// Results that did not get to where they were sent make a failure of a success: a dump on a full disk is none.
int writtenOut(int status) {
  if (std::fflush(stdout) == 0) {
    return status;
  }
  admin::complain("the output cannot be written: " + std::generic_category().message(errno));
  return admin::kFailure;
}

int runProgram(int argc, char** argv) {
  CLI::App app("Makes, examines and repairs the configuration homes of the encryption agent.", "kezu-admin");
  Call call;
  addCommands(app, call);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? admin::kSuccess : admin::kWrongCall;
  }
  call.home = std::filesystem::absolute(call.home).lexically_normal();
  if (call.home.size() > 1 && call.home.back() == '/') {
    call.home.pop_back();
  }
  return writtenOut(call.run(call));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return runProgram(argc, argv);
  } catch (const std::exception& error) {
    admin::complain(error.what());
    return admin::kFailure;
  }
}
