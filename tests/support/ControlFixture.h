#pragma once

#include <control/ControlServer.h>
#include <control/ReportReader.h>
#include <control/Routes.h>
#include <gtest/gtest.h>
#include <policy/PolicyService.h>

#include <memory>

#include "support/FakePolicyHost.h"
#include "support/FakeReports.h"
#include "support/TempDir.h"

namespace test {

/// The control API with stand-ins for two features, one tasklet ("broken", which throws) and the
/// report store.
class ControlFixture : public testing::Test {
  protected:
    TempDir dir_;
    FakePolicyHost host_;
    Agent::PolicyStore store_{dir_.Path("policies")};
    Agent::PolicyService policies_{host_, store_};
    Framework::QueryRegistry queries_;
    FakeReports reports_{queries_};
    Agent::ReportReader reader_{queries_, 2};
    Agent::BaselineRequests baselines_{queries_};
    Agent::Routes routes_{policies_,
                          reader_,
                          baselines_,
                          [](const std::string& id, const std::string&) {
                              Framework::TaskletOutcome outcome;
                              outcome.found = id == "broken";
                              outcome.exception = "thrown";
                              return outcome;
                          },
                          [] { return Json::Value(Json::objectValue); },
                          2};
};

}  // namespace test
