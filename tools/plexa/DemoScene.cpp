#include "DemoScene.hpp"

#include "carafe/Node.hpp"

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int ParticleCount = 40;
      constexpr int PathPoints = 16;
      constexpr double Pi = 3.14159265358979323846;

      using Colour = Carafe::AttributeT<Bastion::Color>;
      using Points = Carafe::AttributeContainer<std::vector<Quiver::Vector2f>>;
      using Matrix = Carafe::AttributeT<Quiver::Matrix4f>;

      /// A colour of full saturation at `hue` (in turns).
      Bastion::Color hueColour(double hue)
      {
        const auto channel = [hue](double offset) { return float(0.5 + 0.5 * std::cos(2.0 * Pi * (hue + offset))); };
        return Bastion::Color(channel(0.0), channel(1.0 / 3.0), channel(2.0 / 3.0), 1.0f);
      }

      Carafe::Node* nodeAt(Carafe::Node& root, const QList<QByteArray>& parts)
      {
        Carafe::Node* node = &root;
        for (const QByteArray& part : parts) {
          auto* child = dynamic_cast<Carafe::Node*>(node->attribute(part));
          node = child ? child : new Carafe::Node(node, part);
        }
        return node;
      }
    }

    template <typename A>
    A* DemoScene::add(const QByteArray& path, A* attribute)
    {
      QList<QByteArray> parts = path.split('/');
      const QByteArray name = parts.takeLast();
      nodeAt(m_root, parts)->addAttribute(name, attribute);
      ++m_attributeCount;
      return attribute;
    }

    DemoScene::DemoScene(Carafe::Node& root)
        : m_root(root)
    {
      add("title", new Carafe::AttributeT<QString>(QString("Plexa demo scene")));
      m_keyColour = add("lights/key/colour", new Colour(Bastion::Color(1.0f, 0.9f, 0.8f)));
      m_keyIntensity = add("lights/key/intensity", new Float(1.0f));
      m_keyPosition = add("lights/key/position", new Vec3(Quiver::Vector3f(2, 4, 2)));
      add("lights/fill/colour", new Colour(Bastion::Color(0.6f, 0.7f, 1.0f)));
      add(FillIntensityPath, new Float(0.5f));
      add("lights/fill/position", new Vec3(Quiver::Vector3f(-3, 2, 1)));
      add(CubeNamePath, new Carafe::AttributeT<QString>(QString("cube")));
      add(CubeTagsPath, new Carafe::AttributeT<QStringList>(QStringList{"solid", "red"}));
      m_cubePosition = add("objects/cube/position", new Vec3());
      m_cubeRotation = add("objects/cube/rotation", new Float(0.0f));
      add("objects/cube/scale", new Vec3(Quiver::Vector3f(1, 1, 1)));
      add("objects/cube/visible", new Carafe::AttributeT<bool>(true));
      m_pathPoints = add("objects/path/points", new Points());
      add("objects/path/closed", new Carafe::AttributeT<bool>(true));
      m_camera = add("camera/transform", new Matrix(Quiver::Matrix4f::identity()));
      add("camera/viewport", new Carafe::AttributeT<Quiver::Recti>(Quiver::Recti(0, 0, 1920, 1080)));
      add("camera/fov", new Carafe::AttributeT<double>(50.0));
      for (int i = 0; i < ParticleCount; ++i)
        m_particles.push_back(add(QString("particles/p%1/position").arg(i, 2, 10, QChar('0')).toUtf8(), new Vec3()));
      m_frame = add(FramePath, new Carafe::AttributeT<int>(0));
      add(EchoPath, new Carafe::AttributeT<int>(0));
      animate(0.0);
    }

    int DemoScene::animate(double t)
    {
      m_keyColour->setValue(hueColour(t / 3.0));
      m_keyIntensity->setValue(float(0.75 + 0.25 * std::sin(2 * Pi * t)));
      m_keyPosition->setValue(Quiver::Vector3f(float(4 * std::cos(t)), 4.0f, float(4 * std::sin(t))));
      m_cubePosition->setValue(
          Quiver::Vector3f(float(std::cos(2 * t)), float(0.5 * std::sin(4 * t)), float(std::sin(2 * t))));
      m_cubeRotation->setValue(float(std::fmod(90.0 * t, 360.0)));

      std::vector<Quiver::Vector2f> points;
      for (int i = 0; i < PathPoints; ++i) {
        const double a = 2 * Pi * i / PathPoints + t;
        points.emplace_back(float(std::cos(a) * (1 + 0.2 * std::sin(3 * a))), float(std::sin(a)));
      }
      m_pathPoints->setValue(points);

      // A camera turning about the vertical axis, ten units back.
      Quiver::Matrix4f camera = Quiver::Matrix4f::identity();
      camera.m[0][0] = float(std::cos(t / 2));
      camera.m[0][2] = float(std::sin(t / 2));
      camera.m[2][0] = -camera.m[0][2];
      camera.m[2][2] = camera.m[0][0];
      camera.m[2][3] = 10.0f;
      m_camera->setValue(camera);

      for (size_t i = 0; i < m_particles.size(); ++i) {
        const double phase = double(i) * 0.7;
        const double radius = 1 + 0.05 * double(i);
        m_particles[i]->setValue(Quiver::Vector3f(float(std::cos(t + phase) * radius),
                                                  float(std::fmod(t * 0.5 + double(i) * 0.1, 2.0)),
                                                  float(std::sin(t + phase) * radius)));
      }
      return 7 + int(m_particles.size());
    }
  }
}
