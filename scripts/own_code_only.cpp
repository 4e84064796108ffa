#include <clang/AST/ASTConsumer.h>
#include <clang/AST/ASTContext.h>
#include <clang/Basic/SourceManager.h>
#include <clang/Frontend/FrontendPluginRegistry.h>

#include <memory>
#include <vector>

/// A plugin for clang-tidy: its checks visit the declarations of our own files only. What a file of
/// two hundred lines includes has a hundred times as many, and nothing that is found in a system
/// header is ever shown. scripts/lint.sh builds and loads it.

namespace {

class own_code_finder : public clang::ASTConsumer {
  public:
    bool HandleTopLevelDecl(clang::DeclGroupRef group) override
    {
        for (clang::Decl *declaration : group) {
            const auto &sources = declaration->getASTContext().getSourceManager();
            if (!sources.isInSystemHeader(declaration->getLocation())) {
                own_.push_back(declaration);
            }
        }
        return true;
    }

    void HandleTranslationUnit(clang::ASTContext &context) override
    {
        context.setTraversalScope(own_);
    }

  private:
    std::vector<clang::Decl *> own_;
};

class own_code_only : public clang::PluginASTAction {
  protected:
    std::unique_ptr<clang::ASTConsumer> CreateASTConsumer(clang::CompilerInstance &,
                                                          llvm::StringRef) override
    {
        return std::make_unique<own_code_finder>();
    }

    bool ParseArgs(const clang::CompilerInstance &, const std::vector<std::string> &) override
    {
        return true;
    }

    ActionType getActionType() override
    {
        return AddBeforeMainAction; // the checks are the main action
    }
};

const clang::FrontendPluginRegistry::Add<own_code_only> registered{"own-code-only",
                                                                   "visits our own files only"};

} // namespace
