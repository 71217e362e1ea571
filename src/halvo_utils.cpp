#include "halvo_utils.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "halvo_log.h"
#include "halvo_params.h"
#include "halvo_text.h"

static constexpr size_t LINE_SIZE = 1024;  // bytes of one read, the terminator included
static constexpr const char* TOKEN_SEPARATORS = "\t \n\r";

halvo_file halvo_open_file(const char* path)
{
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    FILE* file = fd == -1 ? nullptr : fdopen(fd, "r");
    if (file == nullptr && fd != -1) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return {file, fclose};
}

int halvo_read_clock(time_t* now)
{
    *now = time(nullptr);
    if (*now == static_cast<time_t>(-1)) {
        halvo_log(LOG_ERR, "Not able to get system time\n");
        halvo_log_errno(LOG_ERR);
        return -1;
    }
    return 0;
}

void halvo_be_punctual()
{
    const sched_param priority = {.sched_priority = 1};
    // On Linux, 0 means the calling thread, not the whole process. See sched_setscheduler(2).
    sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &priority);
}

// Handles a line with the keyword "global". An unknown parameter is reported and ignored, so that one slip
// in the VM's settings does not stop the daemon.
static void verify_vm_param(const char* param_name, const char* param_value, halvo_vm_info_st* vm_info,
                            const int* line_num)
{
    const int index = halvo_find_param(vm_conf_param_dfl_g, param_name);
    if (index == -1) {
        halvo_log(LOG_ERR, "%s[line:%d]: Invalid VM param name found: %s \n", halvo_config_file_g, *line_num,
                  param_name);
        return;
    }
    halvo_log(LOG_DEBUG, "VM param name matching: %s \n", param_name);
    if (halvo_update_vm_info_table(vm_info, &index, param_name, param_value, line_num) != 0) {
        halvo_log(LOG_ERR, "Updating VM related data to VM info table is failed\n");
    }
}

// Handles a line with the keyword "process", which opens a section. After a failure proc_name stays empty,
// so that the lines of the refused section fail as unknown keywords.
static int open_proc_section(const char* param_name, const char* param_value, char* proc_name,
                             halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table, int line_num)
{
    proc_name[0] = '\0';
    if (strcmp(param_name, "name") != 0) {
        halvo_log(LOG_ERR, "%s[line:%d]: Invalid process name entry found: %s \n", halvo_config_file_g,
                  line_num, param_name);
        return -1;
    }
    if (strlen(param_value) >= PROC_NAME_SIZE) {
        halvo_log(LOG_ERR, "%s[line:%d]: Process name is longer than %d characters: %s \n",
                  halvo_config_file_g, line_num, PROC_NAME_SIZE - 1, param_value);
        return -1;
    }
    halvo_log(LOG_DEBUG, "New process entry found: %s \n", param_value);
    if (vm_info->mon_proc_num >= MAX_PROC_NUM) {
        halvo_log(LOG_ERR, "No: of process entry in config file is more than max process limit [%d]\n",
                  MAX_PROC_NUM);
        return -1;
    }
    halvo_copy_text(proc_name, PROC_NAME_SIZE, param_value);
    const int index = vm_info->mon_proc_num++;
    if (halvo_init_proc_info_table(proc_table, &index, proc_name) != 0) {
        halvo_log(LOG_ERR, "Error in initializing process structure members\n");
    }
    return 0;
}

// Handles a line whose keyword is the current section's name.
static int verify_proc_param(const char* param_name, const char* param_value, const halvo_vm_info_st* vm_info,
                             halvo_child_proc_info_st* proc_table, const int* line_num)
{
    const int index = halvo_find_param(proc_conf_param_dfl_g, param_name);
    if (index == -1) {
        halvo_log(LOG_ERR, "%s[line:%d]: Invalid process param name found: %s \n", halvo_config_file_g,
                  *line_num, param_name);
        return -1;
    }
    halvo_log(LOG_DEBUG, "process param name matching: %s \n", param_name);
    const int entry = vm_info->mon_proc_num - 1;
    if (halvo_update_proc_info_table(proc_table, &entry, param_name, param_value, &index, line_num) != 0) {
        halvo_log(LOG_ERR, "Updating process related data to process table is failed\n");
        return -1;
    }
    return 0;
}

int halvo_verify_conf_param(const char* keyword, const char* param_name, const char* param_value,
                            char* proc_name, halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                            const int* line_num)
{
    // The two keywords win over a section's name: a process called "global" cannot capture the VM's lines.
    if (strcmp(keyword, "global") == 0) {
        verify_vm_param(param_name, param_value, vm_info, line_num);
        return 0;
    }
    if (strcmp(keyword, "process") == 0) {
        return open_proc_section(param_name, param_value, proc_name, vm_info, proc_table, *line_num);
    }
    if (strcmp(keyword, proc_name) != 0) {
        halvo_log(LOG_ERR, "%s[line:%d]: Invalid keyword found: %s \n", halvo_config_file_g, *line_num,
                  keyword);
        return -1;
    }
    return verify_proc_param(param_name, param_value, vm_info, proc_table, line_num);
}

// The first three tokens of a line; null if the line has no such token. They point into the line's buffers.
struct conf_line_st {
    char* keyword;
    char* param_name;
    char* param_value;
};

static bool is_string_param(const char* param_name)
{
    const int row = halvo_find_param(proc_conf_param_dfl_g, param_name);
    return row != -1 && proc_conf_param_dfl_g.at(static_cast<size_t>(row)).param_type == PARAM_STRING;
}

// Splits the line into its tokens and takes a string parameter's value from between its quotes. Returns -1,
// with a message, for a syntax error. A line without a keyword is not an error.
static int tokenise_line(char* line, char* line_copy, int line_num, conf_line_st* tokens)
{
    char* rest = nullptr;
    *tokens = {
        .keyword = strtok_r(line, TOKEN_SEPARATORS, &rest), .param_name = nullptr, .param_value = nullptr};
    if (tokens->keyword == nullptr || tokens->keyword[0] == '#') {
        tokens->keyword = nullptr;
        return 0;
    }
    tokens->param_name = strtok_r(nullptr, TOKEN_SEPARATORS, &rest);
    tokens->param_value = strtok_r(nullptr, TOKEN_SEPARATORS, &rest);
    if (tokens->param_value != nullptr && is_string_param(tokens->param_name)) {
        if (tokens->param_value[0] != '"') {
            halvo_log(LOG_ERR, "%s[line:%d]: The string arguments of [%s] should be within double quotes\n",
                      halvo_config_file_g, line_num, tokens->param_name);
            return -1;
        }
        // From a copy, because the calls above have cut the line at its blanks. The first call yields the
        // text before the quotes, the second the text between them.
        strtok_r(line_copy, "\"", &rest);
        tokens->param_value = strtok_r(nullptr, "\"", &rest);
    }
    if (tokens->param_value == nullptr) {
        halvo_log(LOG_ERR, "%s[line:%d]: missing field\n", halvo_config_file_g, line_num);
        return -1;
    }
    return 0;
}

// One reading of the file: the destination of its values, and the state of the reading.
struct conf_reading_st {
    halvo_vm_info_st* vm_info;
    halvo_child_proc_info_st* proc_table;
    decltype(halvo_verify_conf_param)* verify_line;
    std::array<char, PROC_NAME_SIZE> proc_name;  // of the open section; empty when there is none
    int line_num;
    bool missing_field;    // a line had a syntax error
    bool err_in_conffile;  // a complete line was refused
};

// Checks a line and stores its value. After the first syntax error nothing more is stored; the remaining
// lines are only searched for further syntax errors.
static void take_line(conf_reading_st* reading, char* line)
{
    std::array<char, CMD_SIZE> line_copy;
    conf_line_st tokens;
    halvo_copy_text(line_copy.data(), line_copy.size(), line);
    if (tokenise_line(line, line_copy.data(), reading->line_num, &tokens) != 0) {
        reading->missing_field = true;
    }
    if (tokens.keyword == nullptr || reading->missing_field) {
        return;
    }
    if (reading->verify_line(tokens.keyword, tokens.param_name, tokens.param_value, reading->proc_name.data(),
                             reading->vm_info, reading->proc_table, &reading->line_num) != 0) {
        halvo_log(LOG_ERR, "Error in verifying the field strings and values in config file\n");
        reading->err_in_conffile = true;
    }
}

// Returns true when a line that fgets(3) has read into LINE_SIZE blanks holds a zero byte: the last one is
// then not where the text seems to end. A file damaged in a power failure may hold zero bytes, and the rest
// of such a line would be lost without a message.
static bool has_zero_byte(const char* line)
{
    return memrchr(line, '\0', LINE_SIZE) != line + strlen(line);
}

// Reads line by line to the end of the file. A line that does not fit arrives in pieces, and each counts as
// a line. Returns -1 when any line failed.
static int read_lines(FILE* file, conf_reading_st* reading)
{
    std::array<char, CMD_SIZE> line;
    line.fill(' ');
    while (fgets(line.data(), LINE_SIZE, file) != nullptr) {
        ++reading->line_num;
        if (has_zero_byte(line.data())) {
            halvo_log(LOG_ERR, "%s[line:%d]: A zero byte in the line\n", halvo_config_file_g,
                      reading->line_num);
            reading->missing_field = true;
        }
        take_line(reading, line.data());
        line.fill(' ');
    }
    if (ferror(file) != 0) {
        // A read error must not pass for the end of a shorter configuration.
        halvo_log(LOG_ALERT, "Config file: %s cannot be read\n", halvo_config_file_g);
        reading->err_in_conffile = true;
    }
    halvo_log(LOG_DEBUG, "Config file total lines read: %d\n", reading->line_num);
    return reading->missing_field || reading->err_in_conffile ? -1 : 0;
}

int halvo_read_confile(halvo_vm_info_st* vm_info, halvo_child_proc_info_st* proc_table,
                       decltype(halvo_verify_conf_param)* verify_line)
{
    if (halvo_init_vm_info_table(vm_info) != 0) {
        halvo_log(LOG_ERR, "Error in initializing VM structure members\n");
        return -1;
    }
    {
        const halvo_file file = halvo_open_file(halvo_config_file_g);
        struct stat status {};
        if (file == nullptr) {
            halvo_log(LOG_ALERT, "Config file: %s not found\n", halvo_config_file_g);
            return -1;
        }
        // A FIFO without a writer would pass for an empty configuration, which arms the watchdog and
        // supervises nothing.
        if (fstat(fileno(file.get()), &status) != 0 || !S_ISREG(status.st_mode)) {
            halvo_log(LOG_ALERT, "Config file: %s cannot be read\n", halvo_config_file_g);
            return -1;
        }
        conf_reading_st reading = {.vm_info = vm_info,
                                   .proc_table = proc_table,
                                   .verify_line = verify_line,
                                   .proc_name = {},
                                   .line_num = 0,
                                   .missing_field = false,
                                   .err_in_conffile = false};
        if (read_lines(file.get(), &reading) != 0) {
            return -1;
        }
    }
    if (halvo_verify_mandatory_param(vm_info, proc_table) != 0) {
        halvo_log(LOG_ERR, "Error in verifying the mandatory param\n");
        return -1;
    }
    return 0;
}
