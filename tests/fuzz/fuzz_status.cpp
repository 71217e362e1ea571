// The two reports as halvo-status reads them, the first and the second piece of the input. halvo-status must
// make each of its outputs from them.

#include "status_forms.h"
#include "status_report.h"
#include "world.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> texts = cut(data, size);
    texts.resize(2);
    status_look_st look;
    look.exchange.answer = status_answer::WHOLE;
    const bool has_status = status_read_status(texts[0], &look.report) == 0;
    status_read_config(texts[1], &look.report);
    status_judge({}, &look);
    require(!has_status || look.report.status_cut ||
                look.report.processes.size() >= static_cast<size_t>(*look.report.monitored),
            "as many processes as the daemon says, or a report that is cut off");
    require(status_make_json(look).find('\n') + 1 == status_make_json(look).size(), "one line of JSON");
    require(status_make_line(look).find('\n') + 1 == status_make_line(look).size(), "one plugin line");
    require(status_make_metrics(look).starts_with("# HELP"), "metrics");
    require(!status_make_screen(look, {true, true}, nullptr).empty(), "a screen");
    return 0;
}
