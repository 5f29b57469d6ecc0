#include <gmock/gmock.h>

#include "servers/TestRequest.h"
#include "support/RawServer.h"
#include "support/Servers.h"

using testing::HasSubstr;
using testing::Not;

namespace {

class HttpBasicAuth : public testing::Test {
 protected:
  HttpBasicAuth() {
    WriteFile(m_server.Folder() / "passwords",
              "bob:{PLAIN}s3cret\nann:{SHA}MWnR3DIy7dX5bw7q+0rLji8CSC8=\n");
    WriteFile(m_server.Folder() / "www/file", "private");
  }

  NginxServer m_server{
      "auth_basic private; auth_basic_user_file passwords;\n"
      "location /who { echo -n $remote_user; }"};
  TestRequest m_request{m_server.Port()};
};

class HttpDigestAuth : public testing::Test {
 protected:
  HttpDigestAuth() {
    WriteFile(Served("digest/file"), "private");
    WriteFile(Served("basic/file"), "private");
    WriteFile(Served("digest/echo.sh"), "printf 'Content-Type: text/plain\\r\\n\\r\\n'; cat\n");
  }

  std::filesystem::path Served(const std::string& name) const {
    return m_server.Folder() / ("www/" + name);
  }

  LighttpdServer m_server;
  TestRequest m_request{m_server.Port()};
};

}  // namespace

TEST_F(HttpBasicAuth, RightPasswordOpens) {
  for (const auto& [user, password] : {std::pair("bob", "s3cret"), std::pair("ann", "a:b c")}) {
    SCOPED_TRACE(user);
    ASSERT_OK(m_request.setCredentials(user, password));
    ASSERT_OK(m_request.Get("/who"));
    EXPECT_EQ(m_request.body.text, user);
  }
}

TEST_F(HttpBasicAuth, WrongOrNoPasswordIsRefused) {
  EXPECT_FAILS(m_request.Get("/file"), 0xEDD00000U, "[401]");
  for (const auto& [user, password] :
       {std::pair("bob", "wrong"), std::pair("bob", ""), std::pair("", ""),
        std::pair("bo", "b:s3cret"), std::pair("eve", "s3cret")}) {
    SCOPED_TRACE(std::string(user) + " with " + password);
    ASSERT_OK(m_request.setCredentials(user, password));
    EXPECT_FAILS(m_request.Get("/file"), 0xEDD00000U, "[401]");
    EXPECT_EQ(m_request.ResponseCode(), 401);
    EXPECT_THAT(m_request.body.text, Not(HasSubstr("private")));
  }
}

TEST_F(HttpBasicAuth, CredentialsStayForTheNextRequests) {
  ASSERT_OK(m_request.setCredentials("bob", "s3cret"));
  ASSERT_OK(m_request.Get("/file"));
  EXPECT_FAILS(m_request.Get("/absent"), 0xEDD00000U, "[404]");
  double size = 0.0;
  ASSERT_OK(m_request.getFileInfo("/file", size));
  EXPECT_EQ(size, 7.0);
}

TEST_F(HttpBasicAuth, DigestAloneDoesNotOpen) {
  ASSERT_OK(m_request.setCredentials("bob", "s3cret"));
  ASSERT_OK(m_request.setHTTPAuth(static_cast<long>(CURLAUTH_DIGEST)));
  EXPECT_FAILS(m_request.Get("/file"), 0xEDD00000U, "[401]");
  ASSERT_OK(m_request.setHTTPAuth(static_cast<long>(CURLAUTH_ANY)));
  EXPECT_OK(m_request.Get("/file"));
}

TEST_F(HttpBasicAuth, CredentialsDoNotFollowARedirectToAnotherServer) {
  RawServer other({RawServer::Answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")});
  const NginxServer server("return 302 http://127.0.0.1:" + std::to_string(other.Port()) + "/;");
  TestRequest request(server.Port());
  ASSERT_OK(request.setCredentials("bob", "s3cret"));
  ASSERT_OK(request.Get("/"));
  EXPECT_THAT(other.Received(1)[0], Not(HasSubstr("Authorization")));
}

TEST_F(HttpDigestAuth, RightPasswordOpens) {
  ASSERT_OK(m_request.setCredentials("bob", "s3cret"));
  for (const unsigned long scheme : {CURLAUTH_DIGEST, CURLAUTH_ANY, CURLAUTH_ANYSAFE}) {
    SCOPED_TRACE(scheme);
    ASSERT_OK(m_request.setHTTPAuth(static_cast<long>(scheme)));
    ASSERT_OK(m_request.Get("/digest/file"));
    EXPECT_EQ(m_request.body.text, "private");
  }
}

TEST_F(HttpDigestAuth, WrongPasswordIsRefused) {
  ASSERT_OK(m_request.setHTTPAuth(static_cast<long>(CURLAUTH_DIGEST)));
  EXPECT_FAILS(m_request.Get("/digest/file"), 0xEDD00000U, "[401]");
  ASSERT_OK(m_request.setCredentials("bob", "wrong"));
  EXPECT_FAILS(m_request.Get("/digest/file"), 0xEDD00000U, "[401]");
  ASSERT_OK(m_request.setCredentials("eve", "s3cret"));
  EXPECT_FAILS(m_request.Get("/digest/file"), 0xEDD00000U, "[401]");
  EXPECT_EQ(m_request.ResponseCode(), 401);
}

TEST_F(HttpDigestAuth, IsNotTriedUnlessAskedFor) {
  ASSERT_OK(m_request.setCredentials("bob", "s3cret"));
  EXPECT_FAILS(m_request.Get("/digest/file"), 0xEDD00000U, "[401]");
  ASSERT_OK(m_request.Get("/basic/file"));
  EXPECT_EQ(m_request.body.text, "private");
}

TEST_F(HttpDigestAuth, BodyOfAPostArrivesWithTheAnswerToTheChallenge) {
  ASSERT_OK(m_request.setCredentials("bob", "s3cret"));
  ASSERT_OK(m_request.setHTTPAuth(static_cast<long>(CURLAUTH_DIGEST)));
  ASSERT_OK(m_request.Collect().doPostOperation("/digest/echo.sh", "text", {}));
  EXPECT_EQ(m_request.body.text, "text");
  ASSERT_OK(m_request.Collect().doPostOperation("/digest/echo.sh", "a\0b", 3, {}));
  EXPECT_EQ(m_request.body.text, std::string("a\0b", 3));
  TestRequest fresh(m_server.Port());  // which has no challenge to start from
  ASSERT_OK(fresh.setCredentials("bob", "s3cret"));
  ASSERT_OK(fresh.setHTTPAuth(static_cast<long>(CURLAUTH_DIGEST)));
  ASSERT_OK(fresh.addFormValues("field", CURLFORM_COPYCONTENTS, "contents"));
  ASSERT_OK(fresh.Collect().uploadFile("unused", "/digest/echo.sh", 0, {}));
  EXPECT_THAT(fresh.body.text, HasSubstr("contents"));
}
