/* clang-tidy looks at every declaration of every header, which takes by far most of its time. With
 * this module's check among the others it looks at the project's own only. */
#include <clang-tidy/ClangTidyCheck.h>
#include <clang-tidy/ClangTidyModule.h>
#include <clang-tidy/ClangTidyModuleRegistry.h>
#include <clang/AST/ASTContext.h>
#include <clang/ASTMatchers/ASTMatchFinder.h>

#include <vector>

namespace {

using clang::tidy::ClangTidyCheck;
using clang::tidy::ClangTidyContext;

class OwnCodeCheck : public ClangTidyCheck {
public:
	OwnCodeCheck(llvm::StringRef name, ClangTidyContext *context) : ClangTidyCheck(name, context) {
	}

	void registerMatchers(clang::ast_matchers::MatchFinder *finder) override {
		finder->addMatcher(clang::ast_matchers::translationUnitDecl().bind("unit"), this);
	}

	/* Called for the unit before what is in it. */
	void check(const clang::ast_matchers::MatchFinder::MatchResult &result) override {
		std::vector<clang::Decl *> own;
		for (clang::Decl *each : result.Context->getTranslationUnitDecl()->decls()) {
			if (!result.SourceManager->isInSystemHeader(each->getLocation())) {
				own.push_back(each);
			}
		}
		result.Context->setTraversalScope(own);
	}
};

class OwnCodeModule : public clang::tidy::ClangTidyModule {
public:
	void addCheckFactories(clang::tidy::ClangTidyCheckFactories &factories) override {
		factories.registerCheck<OwnCodeCheck>("kaq-own-code");
	}
};

const clang::tidy::ClangTidyModuleRegistry::Add<OwnCodeModule> kModule("kaq", "");

} // namespace
