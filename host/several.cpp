#include "several.h"

#include "io/interrupt.h"
#include "io/library_log.h"
#include "stream/json_text.h"

namespace {

// Not done at all is worse than done with faults.
ExitStatus worse_of(ExitStatus a, ExitStatus b)
{
    if (a == EXIT_NOT_DONE || b == EXIT_NOT_DONE) return EXIT_NOT_DONE;
    return a == EXIT_DONE ? b : a;
}

}  // namespace

ExitStatus for_each_input(const std::vector<std::string> &paths, bool f_json, Printer &printer,
                          const std::function<ExitStatus(const std::string &path)> &run)
{
    if (paths.size() == 1) return run(paths.front());
    ExitStatus worst = EXIT_DONE;
    for (const std::string &path : paths) {
        if (stop_signal() != 0 || printer.is_closed()) break;
        try {
            worst = worse_of(worst, run(path));
        } catch (const NotWritten &) {
            throw;
        } catch (const NotDone &error) {
            explain_failure();
            say(std::string("golt: ") + error.what());
            if (f_json) printer.print(json_error(EXIT_NOT_DONE, error.what()));
            worst = EXIT_NOT_DONE;
        }
    }
    printer.flush();
    return worst;
}
