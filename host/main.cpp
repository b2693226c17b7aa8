// golt, the host program: the command line and the exit status. The work is in one file for each
// subcommand.

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <new>
#include <sstream>

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "check.h"
#include "frames.h"
#include "help.h"
#include "hls.h"
#include "info.h"
#include "io/interrupt.h"
#include "io/library_log.h"
#include "io/message.h"
#include "io/output.h"
#include "io/printer.h"
#include "io/secrets.h"
#include "io/values.h"
#include "libgolt.h"
#include "plot.h"
#include "remux.h"
#include "serve/serve.h"
#include "stream/json_text.h"
#include "stream/time_text.h"

namespace {

/// The subcommands. run: does what the command line has chosen.
struct Commands {
    RemuxOptions remux;
    InfoOptions info;
    FramesOptions frames;
    CheckOptions check;
    PlotOptions plot;
    HlsOptions hls;
    ServeOptions serve;
    bool f_verbose = false;
    std::function<ExitStatus(Descriptor &, Printer &)> run;
};

int run(int argc, char **argv);
int run_command(const Commands &commands, bool f_json);
void add_remux(CLI::App &app, Commands &commands);
void add_info(CLI::App &app, Commands &commands);
void add_frames(CLI::App &app, Commands &commands);
void add_check(CLI::App &app, Commands &commands);
void add_plot(CLI::App &app, Commands &commands);
void add_hls(CLI::App &app, Commands &commands);
void add_serve(CLI::App &app, Commands &commands);
void add_input(CLI::App &command, InputOptions &input, bool f_streams = false);
void add_inputs(CLI::App &command, InputOptions &input, std::vector<std::string> &paths);
void add_input_options(CLI::App &command, InputOptions &input);
void add_http_options(CLI::App &command, HttpOptions &http);
CLI::Option *add_verbose(CLI::App &command, Commands &commands);
void complete_options(Commands &commands);
int print_help(const CLI::App &app, const CLI::Success &request);
void print_json_error(int status, const std::string &message);
bool asks_for_json(int argc, char **argv);
std::string is_not_empty(const std::string &name);

/// An option whose value parse reads, or else refuses.
template <typename Value, typename Target>
void add_value(CLI::App &command, const char *name, const char *type,
               bool (*parse)(const std::string &text, Value *value), Target &value,
               const char *help)
{
    const auto take = [=, &value](const std::string &text) {
        Value parsed = 0;
        if (!parse(text, &parsed))
            throw BadUsage(fmt::format("{}: {} is not a valid {}", name, text, type));
        value = parsed;
    };
    command.add_option_function<std::string>(name, take, help)->type_name(type);
}

}  // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc &) {
        say("golt: out of memory");
    } catch (const std::exception &error) {
        say(std::string("golt: ") + error.what());
    }
    return EXIT_NOT_DONE;
}

namespace {

int run(int argc, char **argv)
{
    // The write that fails reports a reader that went away and a file that may not grow.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    CLI::App app("Remuxes media files into MPEG-2 transport streams, examines and serves them.",
                 "golt");
    app.set_version_flag("--version", GOLT_version());
    app.require_subcommand(1);
    Commands commands;
    add_remux(app, commands);
    add_info(app, commands);
    add_frames(app, commands);
    add_check(app, commands);
    add_plot(app, commands);
    add_hls(app, commands);
    add_serve(app, commands);
    const bool f_json = asks_for_json(argc, argv);
    try {
        app.parse(argc, argv);
        hide_secrets(argc, argv);
        complete_options(commands);
    } catch (const CLI::Success &request) {
        return print_help(app, request);
    } catch (const CLI::ParseError &error) {
        const auto chosen = app.get_subcommands();
        const std::string name = chosen.empty() ? "" : chosen[0]->get_name() + " ";
        const std::string text = fmt::format("{}; see golt {}--help", error.what(), name);
        say("golt: " + text);
        if (f_json) print_json_error(EXIT_BAD_USAGE, text);
        return EXIT_BAD_USAGE;
    } catch (const BadUsage &error) {
        say(std::string("golt: ") + error.what());
        if (f_json) print_json_error(EXIT_BAD_USAGE, error.what());
        return EXIT_BAD_USAGE;
    }

    note_stop_signals();
    const int status = run_command(commands, f_json);
    die_of_stop_signal();
    return status;
}

int run_command(const Commands &commands, bool f_json)
{
    Descriptor standard_output = take_standard_output(commands.f_verbose);
    Printer printer(standard_output.get(), "standard output");
    ExitStatus status = EXIT_NOT_DONE;
    std::string text = "out of memory";
    try {
        return commands.run(standard_output, printer);
    } catch (const BadUsage &error) {
        text = error.what();
        status = EXIT_BAD_USAGE;
    } catch (const NotWritten &error) {
        text = error.what();
    } catch (const std::bad_alloc &) {
    } catch (const std::exception &error) {
        explain_failure();
        text = error.what();
    }
    say("golt: " + text);
    try {
        if (f_json) printer.print(json_error(status, text));
        printer.flush();
    } catch (const NotDone &) {
        // It has been reported that the output can't be written.
    }
    return status;
}

void add_remux(CLI::App &app, Commands &commands)
{
    RemuxOptions &options = commands.remux;
    CLI::App *command = app.add_subcommand("remux", "Writes IN as a transport stream to OUT");
    command->footer(REMUX_FOOTER);
    add_input(*command, options.input);
    command
        ->add_option("OUT", options.output, "Default: IN's name with .ts; - is the standard output")
        ->check(is_not_empty);
    add_value(*command, "--start", "TIME", parse_time, options.input.start_ms,
              "Begin at the last key picture at or before it");
    add_value(*command, "--to", "TIME", parse_time, options.input.to_ms,
              "Stop before the first frame at or after it");
    add_value(*command, "--frames", "N", parse_count, options.input.frames, "Stop after N frames");
    command->add_flag("--as-is", options.f_as_is, "Write the library's stream, without the stage");
    command->add_flag("--force", options.f_force, "Replace OUT, or OUT.part, if it exists");
    CLI::Option *verbose = add_verbose(*command, commands);
    command->add_flag("-q,--quiet", options.f_quiet, "Print only errors")->excludes(verbose);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &standard_output, Printer &) {
            return remux(commands.remux, std::move(standard_output));
        };
    });
}

void add_info(CLI::App &app, Commands &commands)
{
    InfoOptions &options = commands.info;
    CLI::App *command = app.add_subcommand("info", "Describes IN");
    command->footer(INFO_FOOTER);
    add_inputs(*command, options.input, options.paths);
    command->add_flag("--scan", options.f_scan, "Read all frames, and print their totals");
    command->add_flag("--json", options.f_json, "Print JSON");
    add_verbose(*command, commands);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &, Printer &printer) {
            return info(commands.info, printer);
        };
    });
}

void add_frames(CLI::App &app, Commands &commands)
{
    FramesOptions &options = commands.frames;
    CLI::App *command = app.add_subcommand("frames", "Lists the frames of IN");
    command->footer(FRAMES_FOOTER);
    add_input(*command, options.input, true);
    add_value(*command, "--start", "TIME", parse_time, options.input.start_ms,
              "Begin at the last key picture at or before it");
    add_value(*command, "--count", "N", parse_count, options.count, "List N frames");
    CLI::Option *json =
        command->add_flag("--json", options.f_json, "Print a JSON object on each line");
    command->add_flag("--csv", options.f_csv, "Print comma-separated values")->excludes(json);
    add_verbose(*command, commands);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &, Printer &printer) {
            return frames(commands.frames, printer);
        };
    });
}

void add_check(CLI::App &app, Commands &commands)
{
    CheckOptions &options = commands.check;
    CLI::App *command = app.add_subcommand("check", "Finds what a strict receiver would reject");
    command->footer(CHECK_FOOTER);
    add_inputs(*command, options.input, options.paths);
    command->add_flag("--json", options.f_json, "Print JSON");
    add_verbose(*command, commands);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &, Printer &printer) {
            return check(commands.check, printer);
        };
    });
}

void add_plot(CLI::App &app, Commands &commands)
{
    PlotOptions &options = commands.plot;
    CLI::App *command = app.add_subcommand("plot", "Plots bit rates and times of IN");
    command->footer(PLOT_FOOTER);
    add_input(*command, options.input);
    command->add_option("-o,--output", options.output, "The SVG to write; - is the standard output")
        ->required()
        ->check(is_not_empty);
    command->add_flag("--force", options.f_force, "Replace the file if it exists");
    add_verbose(*command, commands);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &standard_output, Printer &) {
            return plot(commands.plot, std::move(standard_output));
        };
    });
}

void add_hls(CLI::App &app, Commands &commands)
{
    HlsOptions &options = commands.hls;
    CLI::App *command = app.add_subcommand("hls", "Writes IN as playlists and segments to FOLDER");
    command->footer(HLS_FOOTER);
    add_input(*command, options.input);
    command->add_option("FOLDER", options.folder, "The folder to write to")
        ->required()
        ->check(is_not_empty);
    command->add_flag("--force", options.f_force, "Replace files in FOLDER");
    CLI::Option *verbose = add_verbose(*command, commands);
    command->add_flag("-q,--quiet", options.f_quiet, "Print only errors")->excludes(verbose);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &, Printer &) { return hls(commands.hls); };
    });
}

void add_serve(CLI::App &app, Commands &commands)
{
    ServeOptions &options = commands.serve;
    CLI::App *command =
        app.add_subcommand("serve", "Serves folders of films to browsers and players");
    command->footer(SERVE_FOOTER);
    command->add_option("PATH", options.paths, "Folders and files, or http(s) URLs of files")
        ->required()
        ->check(is_not_empty);
    command->add_option("--bind", options.address, "The address to serve at (default: 127.0.0.1)")
        ->type_name("ADDRESS")
        ->check(is_not_empty);
    add_value(*command, "--port", "PORT", parse_port, options.port,
              "The port; 0 is any that is free (default: 8080)");
    add_value(*command, "--cache", "SIZE", parse_size, options.cache_size,
              "Memory for segments that were made (1M to 1024G; default: 32M)");
    add_value(*command, "--workers", "N", parse_count, options.workers,
              "Processes that talk to clients, 64 at most (default: as many as processors)");
    add_value(*command, "--connections", "N", parse_count, options.connections,
              "Connections at a time (at most 65536; default: 1024)");
    add_value(*command, "--per-address", "N", parse_count, options.from_one_address,
              "Of these, from one address (default: 128)");
    add_value(*command, "--idle", "SECONDS", parse_idle, options.idle_seconds,
              "Close connections on which nothing moves for this long (2 to 3600; default: 30)");
    command
        ->add_option("--hls-js", options.hls_js, "hls.js, for browsers that play no HLS themselves")
        ->type_name("FILE")
        ->check(is_not_empty);
    add_http_options(*command, options.http);
    add_verbose(*command, commands);
    command->callback([&commands] {
        commands.run = [&commands](Descriptor &standard_output, Printer &) {
            // Nothing is written to it, and no process of the server is to reach it.
            standard_output.close();
            return serve(commands.serve);
        };
    });
}

void add_input(CLI::App &command, InputOptions &input, bool f_streams)
{
    const std::string kinds =
        f_streams ? "MP4, Matroska, MP3, M2TS or TS" : "MP4, Matroska, MP3 or M2TS";
    command.add_option("IN", input.path, "A file of " + kinds + ", or its http(s) URL")
        ->required()
        ->check(is_not_empty);
    add_input_options(command, input);
}

void add_inputs(CLI::App &command, InputOptions &input, std::vector<std::string> &paths)
{
    command
        .add_option("IN", paths, "Files of MP4, Matroska, MP3, M2TS or TS, or their http(s) URLs")
        ->required()
        ->check(is_not_empty);
    add_input_options(command, input);
}

void add_input_options(CLI::App &command, InputOptions &input)
{
    command.add_option(
        "--format", input.format,
        "Format of IN, such as mp4, mkv, mp3, m2ts, ts; default: by IN's bytes or name");
    add_http_options(command, input.http);
}

void add_http_options(CLI::App &command, HttpOptions &http)
{
    add_value(command, "--timeout", "SECONDS", parse_timeout, http.timeout_s,
              "Give up a request when nothing comes for this long (1 to 120; default: 20)");
    command.add_option("--header", http.headers, "Send this field to the server; repeatable")
        ->type_name("NAME:VALUE")
        ->allow_extra_args(false);
    command.add_option("--ca", http.ca_file, "Trust the certificates in this PEM file")
        ->type_name("FILE")
        ->check(is_not_empty);
    command.add_flag("--netrc", http.f_netrc,
                     "Take name and password for the server from ~/.netrc");
    command.add_flag("--insecure", http.f_insecure, "Accept any certificate of a server");
}

CLI::Option *add_verbose(CLI::App &command, Commands &commands)
{
    return command.add_flag("-v,--verbose", commands.f_verbose,
                            "Print the library's messages to the standard error");
}

// As CLI11 asks for it: what is wrong, or nothing.
std::string is_not_empty(const std::string &name)
{
    return name.empty() ? "the name is empty" : "";
}

void complete_options(Commands &commands)
{
    check_headers(commands.serve.http.headers);
    for (const InputOptions *input :
         {&commands.remux.input, &commands.info.input, &commands.frames.input,
          &commands.check.input, &commands.plot.input, &commands.hls.input})
        check_headers(input->http.headers);
    for (std::string *output : {&commands.remux.output, &commands.plot.output}) {
        if (!output->empty() && leads_to_standard_output(*output)) *output = "-";
    }

    RemuxOptions &options = commands.remux;
    const InputOptions &input = options.input;
    if (input.to_ms && *input.to_ms <= input.start_ms.value_or(0))
        throw BadUsage("--to has to be after --start");
    if (!options.output.empty() || input.path.empty()) return;
    std::filesystem::path path = input.path;
    if (is_url(input.path)) {
        path =
            std::filesystem::path(input.path.substr(0, input.path.find_first_of("?#"))).filename();
        if (path.empty()) throw BadUsage("OUT is required: the URL names no file");
    }
    options.output = path.replace_extension(".ts").string();
}

int print_help(const CLI::App &app, const CLI::Success &request)
{
    std::ostringstream text;
    app.exit(request, text, text);
    Printer printer(STDOUT_FILENO, "standard output");
    printer.print(text.str());
    printer.flush();
    return EXIT_DONE;
}

void print_json_error(int status, const std::string &message)
{
    Printer printer(STDOUT_FILENO, "standard output");
    try {
        printer.print(json_error(status, message));
        printer.flush();
    } catch (const NotWritten &) {
        // The exit status reports a failure anyway.
    }
}

bool asks_for_json(int argc, char **argv)
{
    return std::any_of(argv, argv + argc,
                       [](const char *word) { return std::strcmp(word, "--json") == 0; });
}

}  // namespace
