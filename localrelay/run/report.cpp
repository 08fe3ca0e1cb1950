#include "run/report.h"
#include "base/files.h"
#include "base/status.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace localrelay {
namespace {

using Json = nlohmann::ordered_json;  // keys in the documented order, for people reading it
using Clock = std::chrono::system_clock;

constexpr size_t kPreviousReportLimit = 16u << 20;

std::string IsoTime(Clock::time_point time) {
    const std::time_t seconds = Clock::to_time_t(time);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

// 0 when `text` is not a time IsoTime wrote.
std::time_t ParseIsoTime(const std::string& text) {
    std::tm utc{};
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return end != nullptr && *end == '\0' ? timegm(&utc) : 0;
}

double Seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// A temporary of ours older than this was left by a killed run (a live one writes its reports in
// well under a second); younger ones may be another writer's, mid-write.
constexpr time_t kStaleSeconds = 3600;

// Removes the temporaries ".<name>.<anything>.tmp" a killed run left in `directory`.
void RemoveStaleTemporaries(int directory, const std::string& name) {
    const std::string prefix = "." + name + ".";
    const int fd = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (listing == nullptr) {
        if (fd >= 0) ::close(fd);
        return;
    }
    std::vector<std::string> stale;
    const time_t now = std::time(nullptr);
    while (const dirent* entry = ::readdir(listing)) {
        const std::string_view entryName(entry->d_name);
        struct stat info {};
        if (entryName.size() > prefix.size() + 4 && entryName.compare(0, prefix.size(), prefix) == 0 &&
            entryName.compare(entryName.size() - 4, 4, ".tmp") == 0 &&
            ::fstatat(directory, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(info.st_mode) &&
            info.st_mtime + kStaleSeconds < now)
            stale.emplace_back(entryName);
    }
    ::closedir(listing);
    for (const std::string& entry : stale) ::unlinkat(directory, entry.c_str(), 0);
}

// Replaces `name` in `directory` by `text` whole: an exclusive temporary of a fresh random name
// beside it (never a link planted there, never a name someone can take first), then a rename, so
// readers see the old file or the new one. Failures are not the operation's: no Fail() here.
bool WriteAtomically(int directory, const std::string& name, const std::string& text) {
    RemoveStaleTemporaries(directory, name);
    for (int attempt = 0; attempt < 16; ++attempt) {
        // Hidden and not ending in ".prom", so that a collector reading the directory skips it.
        const std::string temporary = "." + name + "." + RandomName() + ".tmp";
        const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        const int fd = ::openat(directory, temporary.c_str(), flags, 0644);
        if (fd < 0 && errno == EEXIST) continue;  // planted: draw another name
        if (fd < 0) return false;
        size_t written = 0;
        while (written < text.size()) {
            const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            written += size_t(n);
        }
        const bool complete = ::close(fd) == 0 && written == text.size();
        if (complete && ::renameat(directory, temporary.c_str(), directory, name.c_str()) == 0) return true;
        ::unlinkat(directory, temporary.c_str(), 0);
        return false;
    }
    return false;
}

// The previous run's report, when there is a readable one.
Json ReadPrevious(int directory) {
    const int fd = ::openat(directory, kReportName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return Json();
    struct stat info {};
    std::string text;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && size_t(info.st_size) <= kPreviousReportLimit) {
        text.resize(size_t(info.st_size));
        const ssize_t got = ::read(fd, text.data(), text.size());
        text.resize(got > 0 ? size_t(got) : 0);
    }
    ::close(fd);
    Json previous = Json::parse(text, nullptr, false);
    return previous.is_object() ? previous : Json();
}

Json Report(const std::string& repository, const RunLog& log, const RunSummary& summary, const Json& lastSuccess) {
    Json sources = Json::array();
    for (const SourceAttempt& source : log.sourcesTried)
        sources.push_back({{"address", source.address}, {"served", source.status > 0}, {"status", source.status},
                           {"reason", source.reason}, {"proxy", source.proxy.empty() ? Json() : Json(source.proxy)}});
    Json packages = Json::array();
    uint64_t bytes = 0;
    size_t downloaded = 0, failed = 0;
    // Packages held already are only counted (by the mirror): a nightly run over a large
    // repository would otherwise write (and a reader wade through) a line for every package it
    // did not touch. Past RunLog::kListed, those it acted on are only counted too.
    for (const RunLog::Counted& package : log.counted) {
        bytes += package.bytes;
        if (package.status <= 0) ++failed;
        else if (package.download) ++downloaded;
    }
    for (const PackageOutcome& package : log.packages) {
        bytes += package.bytes;
        if (package.status <= 0) ++failed;
        else if (package.action == "download") ++downloaded;
        packages.push_back({{"path", package.path},
                            {"identity", package.identity},
                            {"version", package.version},
                            {"source", package.source},
                            {"action", package.action},
                            {"size", package.size},
                            {"bytes", package.bytes},
                            {"seconds", package.seconds},
                            {"outcome", package.status > 0 ? "ok" : "failed"},
                            {"status", package.status},
                            {"reason", package.reason}});
    }
    return Json{{"format", 2},
                {"repository", repository},
                {"started", IsoTime(summary.started)},
                {"ended", IsoTime(summary.ended)},
                {"seconds", Seconds(summary.started, summary.ended)},
                {"status", summary.status},
                {"message", summary.message},
                {"last_success", lastSuccess},
                {"sources", sources},
                {"served_by", log.servedBy.empty() ? Json() : Json(log.servedBy)},
                {"packages", packages},
                {"unlisted", log.counted.size()},
                {"totals",
                 {{"packages", log.size() + log.held},
                  {"downloaded", downloaded},
                  {"failed", failed},
                  {"held", log.held},
                  {"bytes", bytes},
                  {"held_versions", summary.heldVersions}}}};
}

std::string LabelValue(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return escaped;
}

std::string Metrics(const std::string& repository, const Json& report) {
    struct Metric {
        const char* name;
        const char* help;
        Json value;  // a number: integers stay integers
    };
    const Json& totals = report["totals"];
    const Json& success = report["last_success"];
    const Metric metrics[] = {
        {"update_mirror_last_run_timestamp_seconds", "When the last mirroring run ended.",
         int64_t(ParseIsoTime(report["ended"].get<std::string>()))},
        {"update_mirror_last_success_timestamp_seconds", "When a mirroring run last succeeded; 0: never.",
         success.is_string() ? int64_t(ParseIsoTime(success.get<std::string>())) : 0},
        {"update_mirror_last_run_duration_seconds", "How long the last run took.", report["seconds"]},
        {"update_mirror_last_run_bytes", "Bytes received from sources by the last run.", totals["bytes"]},
        {"update_mirror_last_run_packages_downloaded", "Packages the last run downloaded and stored.",
         totals["downloaded"]},
        {"update_mirror_last_run_packages_failed", "Packages the last run could not mirror.", totals["failed"]},
        {"update_mirror_held_versions", "Package versions the repository holds.", totals["held_versions"]},
        {"update_mirror_last_status", "The last run's status: 1 success, 0 or below a failure.", report["status"]},
    };
    const std::string labels = "{repository=\"" + LabelValue(repository) + "\"}";
    std::string text;
    for (const Metric& metric : metrics) {
        text += std::string("# HELP ") + metric.name + " " + metric.help + "\n";
        text += std::string("# TYPE ") + metric.name + " gauge\n";
        text += metric.name + labels + " " + metric.value.dump() + "\n";  // no locale, exact
    }
    return text;
}

}  // namespace

size_t RunLog::Add(PackageOutcome outcome) {
    if (packages.size() < kListed) packages.push_back(std::move(outcome));
    else counted.push_back(Counted{outcome.identity, outcome.action == "download", outcome.status, outcome.bytes});
    return size() - 1;
}

void RunLog::Failed(size_t number, ZOVRELAY_Status status, const std::string& reason) {
    if (number < packages.size()) {
        PackageOutcome& outcome = packages[number];
        if (outcome.status > 0) outcome.status = status, outcome.reason = reason;
    } else if (number - packages.size() < counted.size()) {
        Counted& outcome = counted[number - packages.size()];
        if (outcome.status > 0) outcome.status = status;
    }
}

void RunLog::NotStored(const std::string& identity, ZOVRELAY_Status status, const std::string& reason) {
    for (PackageOutcome& outcome : packages)
        if (outcome.identity == identity && outcome.action == "download" && outcome.status > 0)
            outcome.status = status, outcome.reason = reason;
    for (Counted& outcome : counted)
        if (outcome.identity == identity && outcome.download && outcome.status > 0) outcome.status = status;
}

std::string MetricsFileName(const std::string& repository) {
    std::string name = "update";
    for (const char c : repository) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (plain) name += c;
        else if (name.back() != '_') name += '_';
    }
    if (name.back() == '_') name.pop_back();
    return name + ".prom";
}

bool WriteRunReport(int root, const std::string& repository, const RunLog& log, const RunSummary& summary) noexcept {
    struct Descriptor {
        int fd;
        ~Descriptor() {
            if (fd >= 0) ::close(fd);
        }
    };
    try {
        Json lastSuccess;
        if (summary.status > 0) lastSuccess = IsoTime(summary.ended);
        else if (const Json previous = ReadPrevious(root); previous.is_object())
            lastSuccess = previous.value("last_success", Json());
        if (!lastSuccess.is_string()) lastSuccess = Json();
        const Json report = Report(repository, log, summary, lastSuccess);
        const bool reported =
            WriteAtomically(root, kReportName, report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");

        const char* configured = std::getenv(kMetricsDirectoryVariable);
        const Descriptor metrics{configured != nullptr && *configured != '\0'
                                     ? ::open(configured, O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                     : ::dup(root)};
        const std::string text = Metrics(repository, report);
        return metrics.fd >= 0 && WriteAtomically(metrics.fd, MetricsFileName(repository), text) && reported;
    } catch (...) {
        return false;
    }
}

}  // namespace localrelay
