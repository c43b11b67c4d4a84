// A storage whose listings a test defines, like a broken or hostile server. Its token is odd:NAME.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kro/kro_err.h"
#include "quarn2_backend/registry.h"
#include "quarn2_backend/storage_backend.h"

struct OddStore {
    std::map<std::string, std::vector<std::string>> lists;  // directory to names
    std::map<std::string, std::string> files;
    std::vector<std::string> gets;  // "N NAME": the Nth opened storage got a request for NAME
    int opened = 0;

    static OddStore& The() {
        static OddStore store;
        return store;
    }
    static void Register();
};

class OddBackend final : public quarn2::StorageBackend {
  public:
    OddBackend() : number_(++OddStore::The().opened) {}

    void Get(const std::string& name, quarn2::ByteSink& sink) override {
        OddStore::The().gets.push_back(std::to_string(number_) + " " + name);
        const auto found = OddStore::The().files.find(name);
        if (found == OddStore::The().files.end()) Missing(name);
        sink.Write(std::as_bytes(std::span(found->second)));
    }
    std::vector<std::string> List(const std::string& name) override {
        const auto found = OddStore::The().lists.find(name);
        if (found != OddStore::The().lists.end()) return found->second;
        if (OddStore::The().files.contains(name)) return {name};
        Missing(name);
    }
    // Operations that change the storage fail.
    bool Put(const std::string& name, quarn2::ByteSource&) override { Missing(name); }
    void Remove(const std::string& name) override { Missing(name); }
    void RemoveDir(const std::string& name) override { Missing(name); }
    void MakeDir(const std::string& name) override { Missing(name); }
    void Clear() override { Missing(""); }

  private:
    [[noreturn]] static void Missing(const std::string& name) {
        throw kro_err::Error(kro_err::Kind::kNotFound, "nothing at '" + name + "'");
    }

    int number_;
};

inline void OddStore::Register() {
    The() = OddStore();
    quarn2::BackendScheme scheme;
    scheme.scheme = "odd";
    scheme.fault = [](const quarn2::BackupToken&) { return std::string(); };
    scheme.open = [](const quarn2::BackupToken&) { return std::make_unique<OddBackend>(); };
    quarn2::RegisterScheme(std::move(scheme));
}
