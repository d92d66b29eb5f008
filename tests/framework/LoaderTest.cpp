#include <vector>

#include "EngineFixture.h"

namespace test {

class LoaderTest : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        SDK::PathUtils::SetInstallationPath(BAD_INSTALLATION);
    }
};

TEST_F(LoaderTest, BadLibraries_EachHasAClearErrorAndTheAgentGoesOn) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Missing", "cannot load the library"},
        {"../module/libGoodModule", "is no module name"},
        {"", "is no module name"},
        {"NoFactory", "has no function CreateModule"},
        {"ThrowingFactory", "threw: no memory for the module"},
        {"NullFactory", "returned no object"},
        {"FailingInit", "Init of module FailingInit failed"},
        {"ThrowingInit", "Init of module ThrowingInit threw: out of luck"},
    };
    for (const auto& [name, expected] : cases) {
        std::string error;
        EXPECT_FALSE(engine_.LoadModule(name, error)) << name;
        EXPECT_NE(error.find(expected), std::string::npos) << name << ": " << error;
    }
    EXPECT_FALSE(engine_.InvokeTasklet("left_behind", "").found);
    EXPECT_EQ(engine_.FindTask("left_behind"), nullptr);
    std::string error;
    EXPECT_TRUE(engine_.LoadModule("GoodModule", error)) << error;
    EXPECT_FALSE(engine_.LoadModule("GoodModule", error));
    EXPECT_NE(error.find("loaded already"), std::string::npos) << error;
    EXPECT_EQ(engine_.ModuleNames(), (std::vector<std::string>{"scripted_module", "GoodModule"}));
}

TEST(Engine, NotStarted_RefusesInsteadOfWaiting) {
    EXPECT_ANY_THROW(Framework::Engine::Instance());
    Framework::Engine engine;
    EXPECT_EQ(&Framework::Engine::Instance(), &engine);
    std::string error;
    EXPECT_FALSE(engine.AddModule(std::make_unique<ScriptedModule>(), error));
    EXPECT_NE(error.find("not running"), std::string::npos) << error;
    EXPECT_NE(engine.ApplyPolicy("feature", "{}").exception, "");
    engine.Start();
    EXPECT_THROW(engine.RunOnFrameworkThread([] { throw std::runtime_error("mine"); }),
                 std::runtime_error);
    bool inner = false;
    engine.RunOnFrameworkThread([&] { engine.RunOnFrameworkThread([&] { inner = true; }); });
    EXPECT_TRUE(inner);
}

}  // namespace test
