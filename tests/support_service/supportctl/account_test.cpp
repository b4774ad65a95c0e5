/// Accounts and API tokens.
#include "supportctl_fixture.h"

namespace TarvoOrvane::Supportctl {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class SupportctlAccountTest : public SupportctlFixture {
 protected:
  static Json::Value User(const std::string& name) {
    Json::Value user;
    user["name"] = name;
    user["role"] = "support";
    user["created"] = kTime;
    return user;
  }
  static Json::Value Token() {
    Json::Value token = User("nightly");
    token["id"] = "1f6c";
    token["expires"] = kTime;
    token["created_by"] = "ada";
    return token;
  }
};

TEST_F(SupportctlAccountTest, UsersAndTokensAreTables) {
  server_.On("GET", "/users", {Answers(ListJson("users", {User("ada")}))});
  EXPECT_EQ(Run({"users"}).out, "NAME  ROLE     CREATED\nada   support  2026-11-23 14:05\n");
  server_.On("GET", "/tokens", {Answers(ListJson("tokens", {Token()}))});
  EXPECT_EQ(Run({"tokens"}).out,
            "ID    NAME     ROLE     CREATED           EXPIRES           CREATED BY\n"
            "1f6c  nightly  support  2026-11-23 14:05  2026-11-23 14:05  ada\n");
}

TEST_F(SupportctlAccountTest, PasswordIsALineOfTheInput) {
  server_.On("POST", "/users", {Answers(User("ada"), 201)});
  input_ = "correct horse \xc3\xa4\nsecond line\n";
  const Outcome outcome = Run({"users", "add", "ada", "--role", "support"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "ada added\n");
  EXPECT_EQ(outcome.err, "") << "nobody is asked";
  const Json::Value request = server_.Requests().at(0).Json();
  EXPECT_EQ(request["name"], "ada");
  EXPECT_EQ(request["role"], "support");
  EXPECT_EQ(request["password"], "correct horse \xc3\xa4");
}

TEST_F(SupportctlAccountTest, MissingPasswordIsExplained) {
  for (const char* input : {"", "\n"}) {
    input_ = input;
    const Outcome outcome = Run({"users", "add", "ada", "--role", "support"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.err, HasSubstr("there is no password"));
  }
  EXPECT_TRUE(server_.Requests().empty());
}

TEST_F(SupportctlAccountTest, ChangeNamesOnlyWhatChanges) {
  server_.On("POST", "/users/ada%40x", {Answers(User("ada@x"))});
  EXPECT_EQ(Run({"users", "change", "ada@x", "--role", "admin"}).out, "ada@x changed\n");
  EXPECT_EQ(server_.Requests().at(0).Json().getMemberNames(), std::vector<std::string>{"role"});
  input_ = "correct horse\n";
  EXPECT_EQ(Run({"users", "change", "ada@x", "--password"}).status, 0);
  EXPECT_EQ(server_.Requests().at(1).Json().getMemberNames(), std::vector<std::string>{"password"});
}

TEST_F(SupportctlAccountTest, RemovalIsTold) {
  server_.On("DELETE", "/users/ada", {Answers(Json::Value(), 204)});
  EXPECT_EQ(Run({"users", "remove", "ada"}).out, "ada removed\n");
  server_.On("DELETE", "/tokens/1f6c", {Answers(Json::Value(), 204)});
  EXPECT_EQ(Run({"tokens", "remove", "1f6c"}).out, "1f6c removed\n");
}

TEST_F(SupportctlAccountTest, SecretOfATokenIsAllThatGoesToTheOutput) {
  Json::Value token = Token();
  token["secret"] = "s3cret";
  server_.On("POST", "/tokens", {Answers(token, 201)});
  const Outcome outcome = Run({"tokens", "add", "nightly", "--role", "support", "--days", "30"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "s3cret\n");
  EXPECT_THAT(outcome.err, Not(HasSubstr("s3cret")));
  EXPECT_THAT(outcome.err, HasSubstr("never told again"));
  EXPECT_EQ(server_.Requests().at(0).Json()["days"], 30);
  EXPECT_EQ(Run({"tokens", "add", "nightly", "--role", "support", "--json"}).Json()["secret"], "s3cret");
  EXPECT_FALSE(server_.Requests().at(1).Json().isMember("days"));
}

}  // namespace
}  // namespace TarvoOrvane::Supportctl
