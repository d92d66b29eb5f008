// Owns the existing feature policies, one per name. The next policy of a name, DeleteAll or the end
// of the process deletes them. Framework thread only.
#include <framework/FeaturePolicy.h>

#include <map>

namespace Framework {

namespace {

class Registered {
  public:
    static Registered& Instance() {
        static Registered registered;
        return registered;
    }

    Registered() = default;
    ~Registered() { DeleteAll(); }
    Registered(const Registered&) = delete;
    Registered& operator=(const Registered&) = delete;

    void Replace(const std::string& name, FeaturePolicy* policy) {
        Delete(name);
        policies_[name] = policy;
    }

    void Forget(const FeaturePolicy* policy) {
        const auto found = policies_.find(policy->Name());
        if (found != policies_.end() && found->second == policy) policies_.erase(found);
    }

    void DeleteAll() {
        while (!policies_.empty()) Delete(std::string(policies_.begin()->first));
    }

  private:
    void Delete(const std::string& name) {
        const auto found = policies_.find(name);
        if (found == policies_.end()) return;
        FeaturePolicy* const policy = found->second;
        policies_.erase(found);
        delete policy;
    }

    std::map<std::string, FeaturePolicy*> policies_;
};

}  // namespace

FeaturePolicy::FeaturePolicy(const std::string& name) : Policy(name) {
    Registered::Instance().Replace(name, this);
}

FeaturePolicy::~FeaturePolicy() {
    Registered::Instance().Forget(this);
}

void FeaturePolicy::Dispatch(Policy*) {}

bool FeaturePolicy::PolicyChanged(const std::string& version, const std::string& content) {
    return version != version_ || content != content_;
}

void FeaturePolicy::StoreIdentity(const std::string& version, const std::string& content) {
    version_ = version;
    content_ = content;
}

void FeaturePolicy::DeleteAll() {
    Registered::Instance().DeleteAll();
}

void TaskPolicy::Dispatch(Policy*) {}

bool TaskPolicy::PolicyChanged(const std::string& version, const std::string& content) {
    return version != version_ || content != content_;
}

}  // namespace Framework
