#include "ctl/console/VerifyJobs.h"

#include <sdk/text/PercentCode.h>

#include <algorithm>
#include <utility>

namespace Ctl {

namespace {

constexpr std::size_t kMostListed = 500;
constexpr unsigned int kThreads = 2;

}  // namespace

/// What the thread of a comparison works with.
struct VerifyJobs::Job {
    explicit Job(std::vector<ApprovedPart> parts)
        : list(kMostListed),
          verification(std::move(parts),
                       {Baseline::TreeVerifier::Side::kLive, false, kThreads,
                        [this] { return is_over.load(); }},
                       list) {
        thread = std::thread([this] {
            verification.Run();
            is_done = true;
        });
    }
    ~Job() {
        is_over = true;
        thread.join();
    }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    std::atomic<bool> is_over{false};
    std::atomic<bool> is_done{false};
    DifferenceList list;
    Verification verification;
    std::thread thread;
};

int VerifyJobs::Start(const std::string& path, std::string& error) {
    const ApprovedStates states;
    std::vector<ApprovedPart> parts = states.Holding(states.Resolve(path));
    if (parts.empty()) {
        error = states.Problems().empty() ? "There is no approved state of " + path + "."
                                          : states.Problems().front();
        return 0;
    }
    Stop();
    const std::lock_guard<std::mutex> lock(mutex_);
    job_ = std::make_shared<Job>(std::move(parts));
    return ++number_;
}

Json::Value VerifyJobs::Show(long long number) const {
    std::shared_ptr<Job> job;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (number == number_) job = job_;
    }
    if (job == nullptr) return {};
    if (job->is_done) return Result(*job);
    Json::Value answer(Json::objectValue);
    answer["state"] = "running";
    answer["objects"] = static_cast<Json::UInt64>(job->verification.Progress().done);
    return answer;
}

Json::Value VerifyJobs::Result(const Job& job) {
    Json::Value answer(Json::objectValue);
    answer["state"] = "done";
    Json::Value& differences = answer["differences"];
    differences = Json::Value(Json::arrayValue);
    for (const FoundDifference& found : job.list.Kept()) {
        Json::Value object(Json::objectValue);
        object["kind"] = KindName(found.difference.kind);
        object["path"] = SDK::PercentEncode(found.Path());
        object["shown"] = found.Path();
        object["detail"] = found.difference.detail;
        differences.append(std::move(object));
    }
    answer["left_out"] = static_cast<Json::UInt64>(job.list.Total() - job.list.Kept().size());
    const std::size_t objects = job.verification.Spent().objects;
    std::string message =
        std::to_string(objects) + " objects compared: " + CountsOf(job.list) + ".";
    for (const std::string& problem : job.verification.Problems()) message += " " + problem;
    answer["message"] = message;
    answer["is_equal"] = job.list.Total() == 0 && job.verification.Problems().empty();
    return answer;
}

void VerifyJobs::Stop() {
    std::shared_ptr<Job> ended;
    const std::lock_guard<std::mutex> lock(mutex_);
    ended.swap(job_);
}

}  // namespace Ctl
