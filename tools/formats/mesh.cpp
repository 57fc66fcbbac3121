// SPDX-License-Identifier: Apache-2.0
#include "mesh.hpp"

#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <assimp/Importer.hpp>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>

namespace {

// Faces of more than three corners become triangles; node transforms are
// applied, so that a scene's parts land where its author placed them;
// corners that repeat a vertex exactly become one vertex again (importers
// give every face its own corners), which the operations that follow the
// mesh's adjacency need.
constexpr unsigned kSteps =
    aiProcess_Triangulate | aiProcess_PreTransformVertices | aiProcess_JoinIdenticalVertices | aiProcess_SortByPType;

}  // namespace

bool read_mesh(const std::string& path, MeshData& mesh, std::string& error) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        error = path + ": " + (std::filesystem::exists(path, ec) ? "not a file" : "no such file");
        return false;
    }
    Assimp::Importer importer;
    // Points and lines are no surface: they are dropped on import.
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
    const aiScene* scene = importer.ReadFile(path, kSteps);
    if (!scene || (scene->mFlags & AI_SCENE_FLAGS_INCOMPLETE)) {
        error = path + ": " + (scene ? std::string("incomplete scene") : std::string(importer.GetErrorString()));
        return false;
    }
    MeshData out;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
        const aiMesh* part = scene->mMeshes[m];
        if (!(part->mPrimitiveTypes & aiPrimitiveType_TRIANGLE)) continue;
        const size_t first = out.vertex_count();
        if (first + part->mNumVertices > UINT32_MAX) {
            error = path + ": more than 2^32 - 1 vertices";
            return false;
        }
        for (unsigned v = 0; v < part->mNumVertices; ++v) {
            const aiVector3D& p = part->mVertices[v];
            if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) {
                error = path + ": vertex " + std::to_string(v) + " of mesh " + std::to_string(m) + " is not finite";
                return false;
            }
            out.vertices.insert(out.vertices.end(), {p.x, p.y, p.z});
        }
        for (unsigned f = 0; f < part->mNumFaces; ++f) {
            const aiFace& face = part->mFaces[f];
            if (face.mNumIndices != 3) continue;
            for (unsigned k = 0; k < 3; ++k) out.triangles.push_back(static_cast<uint32_t>(first + face.mIndices[k]));
        }
    }
    mesh = std::move(out);
    return true;
}

MeshBox turn_over(MeshData& mesh) {
    MeshBox box{INFINITY, -INFINITY, INFINITY, -INFINITY};
    for (size_t i = 0; i < mesh.vertices.size(); i += 3) {
        box.x0 = std::min(box.x0, mesh.vertices[i]);
        box.x1 = std::max(box.x1, mesh.vertices[i]);
        box.y0 = std::min(box.y0, mesh.vertices[i + 1]);
        box.y1 = std::max(box.y1, mesh.vertices[i + 1]);
        mesh.vertices[i + 1] = -mesh.vertices[i + 1];
    }
    return box;
}
