#pragma once

#include "plexa/types/CarafeAttributes.hpp"

#include <QByteArray>

#include <vector>

namespace Plexa
{
  namespace Cli
  {
    /// The small scene of `plexa demo`: lights with colours and positions, objects with names,
    /// tags and a path of points, a camera, a swarm of particles, and two counters for measuring
    /// round trips. `animate` moves it along a time line.
    ///
    /// Application thread only; the root must outlive the scene.
    class DemoScene
    {
    public:
      /// Paths the demo works with beside the animated ones.
      static constexpr const char* FramePath = "stats/frame";
      static constexpr const char* EchoPath = "stats/echo";
      static constexpr const char* FillIntensityPath = "lights/fill/intensity";
      static constexpr const char* CubeNamePath = "objects/cube/name";
      static constexpr const char* CubeTagsPath = "objects/cube/tags";

      /// Builds the scene under `root`.
      explicit DemoScene(Carafe::Node& root);

      /// Sets the animated values for `seconds` into the animation; returns how many were set.
      int animate(double seconds);
      /// Attributes (not nodes) of the scene.
      int attributeCount() const { return m_attributeCount; }
      /// The frame counter at `FramePath`.
      Carafe::AttributeT<int>& frame() { return *m_frame; }

    private:
      template <typename A>
      A* add(const QByteArray& path, A* attribute);

      using Float = Carafe::AttributeT<float>;
      using Vec3 = Carafe::AttributeT<Quiver::Vector3f>;

      // The animated attributes, owned by the tree.
      Carafe::Node& m_root;
      int m_attributeCount = 0;
      std::vector<Vec3*> m_particles;
      Carafe::AttributeT<Bastion::Color>* m_keyColour = nullptr;
      Float* m_keyIntensity = nullptr;
      Vec3* m_keyPosition = nullptr;
      Vec3* m_cubePosition = nullptr;
      Float* m_cubeRotation = nullptr;
      Carafe::AttributeContainer<std::vector<Quiver::Vector2f>>* m_pathPoints = nullptr;
      Carafe::AttributeT<Quiver::Matrix4f>* m_camera = nullptr;
      Carafe::AttributeT<int>* m_frame = nullptr;
    };
  }
}
