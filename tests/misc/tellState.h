// tellState.h -- reads the report of the program tellState.
#ifndef PELAGO_TESTS_MISC_TELLSTATE_H
#define PELAGO_TESTS_MISC_TELLSTATE_H

#include <map>
#include <string>
#include <vector>

// The values in the report by name, in order.
class State {
public:
    explicit State(const std::string &report)
    {
        for (size_t at = 0; at < report.size();) {
            const std::string line = report.c_str() + at;
            at += line.size() + 1;
            mValues[line.substr(0, line.find(' '))].push_back(line.substr(line.find(' ') + 1));
        }
    }
    std::vector<std::string> All(const std::string &name) const
    {
        const auto found = mValues.find(name);
        return found == mValues.end() ? std::vector<std::string>() : found->second;
    }
    std::string The(const std::string &name) const
    {
        const std::vector<std::string> all = All(name);
        return all.size() == 1 ? all[0] : std::to_string(all.size()) + " of " + name;
    }

private:
    std::map<std::string, std::vector<std::string>> mValues;
};

#endif // PELAGO_TESTS_MISC_TELLSTATE_H
